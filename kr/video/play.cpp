// kr video play

#include "tool/command.hpp"
#include "tool/progress.hpp"
#include "video/frames.hpp"
#include "video/mcap.hpp"
#include "video/pipelinesink.hpp"
#include "video/timeline.hpp"

#include <functional>
#include <memory>
#include <stdexcept>

namespace KR::tool::videoPlay {

namespace {

struct Options {
    std::string file;
    std::size_t stream = 0;
    std::uint64_t from = 0;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "oxv or mcap file").required();
        arguments.add("--stream", stream, "stream number").wholeNumber(0).showDefault();
        arguments.add("--from", from, "first frame").wholeNumber(0).showDefault();
    }
};

/// What is to be shown.
struct Film {
    std::function<const KRImage*()> readNext; // null: there are no more
    std::uint64_t count;                      // of frames
    std::int64_t interval_usec;
};

Film openMcap(const Options& options) {
    McapContent content;
    {
        Progress progress(0);
        content = readMcap(options.file, progress);
    }
    const McapImages& images = chooseMcapImages(options.file, content, options.stream, options.from);
    const std::int64_t usual = makeTimeline(images.timeStamps).usualInterval;
    Film film{openMcapImages(options.file, images), images.timeStamps.size() - options.from,
              usual > 0 ? usual : 1000000 / 30};
    for (std::uint64_t frame = 0; frame < options.from; ++frame) {
        film.readNext();
    }
    return film;
}

ExitCode show(const Options& options, const Film& film) {
    try {
        const std::unique_ptr<FrameSink> window = makeWindowSink(film.interval_usec);
        FrameClock clock(film.interval_usec);
        Progress progress(film.count);
        std::uint64_t frame = options.from;
        while (const KRImage* image = film.readNext()) {
            window->write(*image, frame++, clock.next(image->timeStamp));
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

ExitCode play(const Options& options) {
    if (isMcap(options.file)) {
        return show(options, openMcap(options));
    }
    KROxvFile recording(options.file);
    Frames frames(recording, options.stream);
    frames.read(options.from); // throws if there is none
    std::uint64_t next = options.from;
    return show(options,
                {[&] { return next < frames.count() ? &frames.read(next++) : nullptr; },
                 frames.count() - options.from, estimateInterval(recording, options.stream, options.from)});
}

const VerbRegistration registration(Verb<Options>{
    .group = "video",
    .name = "play",
    .summary = "Show a recording in a window, at the rate of its time stamps",
    .example = "  kr video play corridor.oxv --stream 1",
    .run = play,
});

} // namespace
} // namespace KR::tool::videoPlay
