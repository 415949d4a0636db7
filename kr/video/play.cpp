// kr video play

#include "command.hpp"
#include "frames.hpp"
#include "number.hpp"
#include "pipelinesink.hpp"
#include "progress.hpp"

#include <CLI/CLI.hpp>

#include <memory>
#include <stdexcept>

namespace KR::tool {

namespace {

struct Options {
    std::string file;
    std::size_t stream = 0;
    std::uint64_t from = 0;
};

ExitCode play(const Options& options) {
    KROxvFile recording(options.file);
    Frames frames(recording, options.stream);
    frames.read(options.from); // there must be one
    const std::int64_t interval = estimateInterval(recording, options.stream, options.from);
    try {
        const std::unique_ptr<FrameSink> window = makeWindowSink(interval);
        FrameClock clock(interval);
        Progress progress(frames.count() - options.from);
        for (std::uint64_t frame = options.from; frame < frames.count(); ++frame) {
            const KRImage& image = frames.read(frame);
            window->write(image, frame, clock.next(image.timeStamp));
            progress.advance();
        }
        window->finish();
    } catch (const WindowClosed&) {
        return ExitCode::Done;
    } catch (const std::runtime_error& error) {
        complain(error.what());
        complain("without a window, make a film of it for elsewhere: kr video convert " + options.file +
                 " film.mkv, or a picture of a frame: kr video extract " + options.file +
                 " --frame 0 frame.png");
        return ExitCode::Failed;
    }
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("FILE", options->file, "an oxv file")->required();
    app.add_option("--stream", options->stream, "0 is the first one, and taken if it is not told")
        ->transform(wholeNumber(0));
    app.add_option("--from", options->from, "the first frame; 0 if it is not told")
        ->transform(wholeNumber(0));
    return [options] { return play(*options); };
}

const CommandRegistration command({"video", "play",
                                   "Shows a recording in a window, at the rate of its time stamps",
                                   "  kr video play corridor.oxv --stream 1", declare});

} // namespace

} // namespace KR::tool
