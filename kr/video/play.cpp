// kr video play

#include "tool/command.hpp"
#include "tool/number.hpp"
#include "tool/progress.hpp"
#include "video/frames.hpp"
#include "video/pipelinesink.hpp"

#include <CLI/CLI.hpp>

#include <memory>
#include <stdexcept>

namespace KR::tool {

namespace {

struct Options {
    std::string file;
    std::size_t stream = 0;
    std::uint64_t from = 0;

    void declare(CLI::App& app) {
        app.add_option("FILE", file, "oxv file")->required();
        app.add_option("--stream", stream, "stream number")->transform(wholeNumber(0))->capture_default_str();
        app.add_option("--from", from, "first frame")->transform(wholeNumber(0))->capture_default_str();
    }
};

ExitCode play(const Options& options) {
    KROxvFile recording(options.file);
    Frames frames(recording, options.stream);
    frames.read(options.from); // throws if there is none
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
        printError(error.what());
        printError("without a window, convert it to a film: kr video convert " + options.file +
                   " film.mkv, or a frame to a picture: kr video extract " + options.file +
                   " --frame 0 frame.png");
        return ExitCode::Failed;
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "video",
    .name = "play",
    .summary = "Show a recording in a window, at the rate of its time stamps",
    .example = "  kr video play corridor.oxv --stream 1",
    .run = play,
});

} // namespace
} // namespace KR::tool
