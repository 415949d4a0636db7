// kr video play

#include "tool/command.hpp"
#include "tool/progress.hpp"
#include "video/frames.hpp"
#include "video/pipelinesink.hpp"

#include <memory>
#include <stdexcept>

namespace KR::tool {

namespace {

struct Options {
    std::string file;
    std::size_t stream = 0;
    std::uint64_t from = 0;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "oxv file").required();
        arguments.add("--stream", stream, "stream number").wholeNumber(0).showDefault();
        arguments.add("--from", from, "first frame").wholeNumber(0).showDefault();
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
