// kr video convert

#include "image/picture.hpp"
#include "tool/command.hpp"
#include "tool/outputfile.hpp"
#include "video/filmreader.hpp"
#include "video/frames.hpp"
#include "video/mcap.hpp"
#include "video/pipelinesink.hpp"

#include <krvision/kroxvfile.hpp>
#include <krvision/kroxvrepair.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

namespace KR::tool::videoConvert {

namespace {

struct Options {
    std::string in;
    std::string out;
    std::optional<std::size_t> stream;
    std::uint64_t from = 0;
    std::uint64_t to = std::numeric_limits<std::uint64_t>::max();
    std::string codec;
    std::string compression = "none";
    std::string size = "640x480";

    void declare(Arguments& arguments) {
        arguments.add("IN", in, "oxv or mcap file, or a video file that GStreamer can decode").required();
        arguments
            .add("OUT", out,
                 "file that ends in .mkv or .mp4, in .y4m, in .png, .ppm or .jpg for a picture of each frame "
                 "(its number replaces %d or %06d, or precedes the extension), or in .oxv or .mcap")
            .required();
        arguments.add("--stream", stream, "stream number (default: 0; to oxv and mcap, all streams)")
            .wholeNumber(0);
        arguments.add("--from", from, "first frame (default: 0)").wholeNumber(0);
        arguments.add("--to", to, "last frame (default: the last one of the recording)").wholeNumber(0);
        arguments.add("--codec", codec, "codec of " + listFilmFormats() + " (default: the first one)");
        arguments.add("--compression", compression, "compression of an mcap file: none, lz4 or zstd")
            .oneOf({"none", "lz4", "zstd"})
            .showDefault();
        arguments.add("--size", size, "size of a recording of a video file: 160x120, 320x240 or 640x480")
            .showDefault();
    }
};

struct Range {
    std::uint64_t first;
    std::uint64_t count;
};

Range chooseFrames(const Options& options, const KROxvFile& recording) {
    const std::uint64_t frames = recording.countCompleteFrames();
    if (options.from >= frames) {
        throw std::runtime_error(options.in + ": there is no frame " + std::to_string(options.from) +
                                 "; there are " + std::to_string(frames));
    }
    return {options.from, std::min(options.to, frames - 1) - options.from + 1};
}

void convertTo(FrameSink& sink, Frames& frames, const Range& range, std::int64_t interval_usec) {
    FrameClock clock(interval_usec);
    Progress progress(range.count);
    for (std::uint64_t frame = range.first; frame < range.first + range.count; ++frame) {
        const KRImage& image = frames.read(frame);
        sink.write(image, frame, clock.next(image.timeStamp));
        progress.advance();
    }
    sink.finish();
}

void convertToFile(const Options& options, const std::string& extension, KROxvFile& recording,
                   const Range& range) {
    OutputFile out(options.out, options.in);
    if (extension == ".oxv") {
        Progress progress(range.count);
        copyFrames(recording, range.first, range.count, options.stream, out.getPath(),
                   getFinalName(out.getPath()), [&] { progress.advance(); });
    } else if (extension == ".mcap") {
        Progress progress(range.count);
        copyToMcap(recording, range.first, range.count, options.stream, out.getPath(), options.compression,
                   progress);
    } else {
        const std::size_t stream = options.stream.value_or(0);
        Frames frames(recording, stream);
        const std::int64_t interval = estimateInterval(recording, stream, range.first);
        const std::unique_ptr<FrameSink> sink =
            extension == ".y4m" ? makeY4mSink(out.getPath(), interval)
                                : makeFilmSink(out.getPath(), extension, options.codec, interval);
        convertTo(*sink, frames, range, interval);
    }
    out.commit();
}

ExitCode convertRecording(const Options& options, KROxvFile& recording) {
    const std::string extension = getExtension(options.out);
    recording.requireFrames();
    if (options.stream && *options.stream >= recording.getStreams().size()) {
        throw std::runtime_error(options.in + ": there is no stream " + std::to_string(*options.stream) +
                                 "; the last one is " + std::to_string(recording.getStreams().size() - 1));
    }
    const Range range = chooseFrames(options, recording);
    if (isPictureExtension(extension)) {
        Frames frames(recording, options.stream.value_or(0));
        convertTo(*makePictureSink(options.out), frames, range, 0);
    } else {
        convertToFile(options, extension, recording, range);
    }
    const std::uint64_t missing = recording.countExpectedFrames() - recording.countCompleteFrames();
    if (missing > 0 && options.to >= recording.countCompleteFrames()) {
        printError(options.in + ": " + std::to_string(missing) +
                   (missing == 1 ? " frame is" : " frames are") + " missing or cut at its end");
        return ExitCode::DataLost;
    }
    return ExitCode::Done;
}

std::uint64_t countFrames(const McapContent& content, std::optional<std::size_t> stream) {
    std::uint64_t frames = std::numeric_limits<std::uint64_t>::max();
    for (std::size_t i = 0; i < content.images.size(); ++i) {
        const std::uint64_t count = content.images[i].timeStamps.size();
        if (stream ? *stream == i : count > 0) {
            frames = std::min(frames, count);
        }
    }
    return frames == std::numeric_limits<std::uint64_t>::max() ? 0 : frames;
}

// What of the images does not come into a recording, a line each. \return whether anything
bool reportLosses(const std::string& path, const McapContent& content, std::optional<std::size_t> stream,
                  std::uint64_t frames) {
    bool isLost = !content.damage.empty();
    for (const std::string& damage : content.damage) {
        printError(path + ": " + damage);
    }
    for (std::size_t i = 0; i < content.images.size(); ++i) {
        const McapImages& images = content.images[i];
        if (stream && *stream != i) {
            continue;
        }
        if (images.refused > 0) {
            printError(path + ": " + std::to_string(images.refused) + " images of " + images.topic +
                       " are left out; the first one: " + images.refusal);
        }
        if (images.timeStamps.size() > frames) {
            printError(path + ": " + std::to_string(images.timeStamps.size() - frames) + " images of " +
                       images.topic + " are left out, as another topic has fewer");
        }
        isLost = isLost || images.refused > 0 || images.timeStamps.size() > frames;
    }
    return isLost;
}

ExitCode convertMcap(const Options& options) {
    McapContent content;
    {
        Progress progress(0);
        content = readMcap(options.in, progress);
    }
    const std::uint64_t frames = countFrames(content, options.stream);
    if (options.from >= frames) {
        throw std::runtime_error(options.in + ": there is no frame " + std::to_string(options.from) +
                                 "; there are " + std::to_string(frames));
    }
    const std::uint64_t count = std::min(options.to, frames - 1) - options.from + 1;
    OutputFile out(options.out, options.in);
    std::uint64_t written = 0;
    {
        Progress progress(count);
        written = copyFromMcap(options.in, content, options.from, count, options.stream, out.getPath(),
                               options.out, progress);
    }
    out.commit();
    if (written < count) {
        printError("a recording holds 4 GiB: " + options.out + " ends before frame " +
                   std::to_string(options.from + written) + "; make another one with --from " +
                   std::to_string(options.from + written));
    }
    const bool isLost = reportLosses(options.in, content, options.stream, frames);
    return written < count || isLost ? ExitCode::DataLost : ExitCode::Done;
}

int parseSize(const std::string& size) {
    for (int resolution = 0; resolution <= kVGA; ++resolution) {
        int width = 0, height = 0;
        setSizeFromResolution(resolution, width, height);
        if (size == std::to_string(width) + "x" + std::to_string(height)) {
            return resolution;
        }
    }
    throw UsageError("--size " + size + ": recordings have 160x120, 320x240 or 640x480 pixels");
}

ExitCode convertFilmToMcap(const Options& options) {
    const int resolution = parseSize(options.size);
    if (options.stream) {
        throw UsageError("--stream is for recordings; of a video file, the first video stream is converted");
    }
    OutputFile out(options.out, options.in);
    const std::unique_ptr<FilmReader> film = openFilm(options.in, resolution);
    const std::unique_ptr<FrameSink> sink = makeMcapSink(out.getPath(), options.compression);
    KRImage image(resolution, kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    std::uint64_t written = 0;
    {
        Progress progress(film->estimateFrames());
        for (std::uint64_t frame = 0; frame <= options.to && film->readNext(image); ++frame) {
            if (frame >= options.from) {
                sink->write(image, frame, image.timeStamp);
                ++written;
            }
            progress.advance();
        }
    }
    if (written == 0) {
        throw std::runtime_error(options.in + ": there is no frame " + std::to_string(options.from));
    }
    sink->finish();
    out.commit();
    return ExitCode::Done;
}

ExitCode convertFilm(const Options& options) {
    const int resolution = parseSize(options.size);
    if (options.stream) {
        throw UsageError("--stream is for recordings; of a video file, the first video stream is converted");
    }
    OutputFile out(options.out, options.in);
    const std::unique_ptr<FilmReader> film = openFilm(options.in, resolution);
    KRImage image(resolution, kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    KROxvWriter writer(out.getPath(),
                       {{static_cast<std::uint32_t>(image.width), static_cast<std::uint32_t>(image.height),
                         static_cast<std::uint32_t>(kYUV422ColorSpace), 8}},
                       options.out);
    ExitCode code = ExitCode::Done;
    {
        Progress progress(film->estimateFrames());
        for (std::uint64_t frame = 0; frame <= options.to && film->readNext(image); ++frame) {
            if (frame >= options.from && !writer.hasRoom()) {
                printError("a recording holds 4 GiB: " + options.out + " ends before frame " +
                           std::to_string(frame) + "; make another one with --from " + std::to_string(frame));
                code = ExitCode::DataLost;
                break;
            }
            if (frame >= options.from) {
                writer.write({&image});
            }
            progress.advance();
        }
    }
    if (writer.countFrames() == 0) {
        throw std::runtime_error(options.in + ": there is no frame " + std::to_string(options.from));
    }
    writer.close();
    out.commit();
    return code;
}

bool isRecording(const std::string& path) {
    try {
        const KROxvFile recording(path);
        return true;
    } catch (const KRNotOxvError&) {
        return false;
    }
}

ExitCode convert(const Options& options) {
    const std::string extension = getExtension(options.out);
    const bool isKnown = extension == ".oxv" || extension == ".mcap" || extension == ".y4m" ||
                         isFilmExtension(extension) || isPictureExtension(extension);
    if (!isKnown) {
        throw UsageError(
            options.out +
            ": the extension selects the format: .mkv, .mp4, .y4m, .png, .ppm, .jpg, .oxv or .mcap");
    }
    if (!options.codec.empty() && !isFilmExtension(extension)) {
        throw UsageError("--codec is for " + listFilmFormats());
    }
    if (options.from > options.to) {
        throw UsageError("--from " + std::to_string(options.from) + " is after --to " +
                         std::to_string(options.to));
    }
    if (isMcap(options.in)) {
        if (extension != ".oxv") {
            throw UsageError(options.in + " is an mcap file, which can be converted to .oxv files only");
        }
        return convertMcap(options);
    }
    if (isRecording(options.in)) {
        KROxvFile recording(options.in);
        return convertRecording(options, recording);
    }
    if (extension == ".mcap") {
        return convertFilmToMcap(options);
    }
    if (extension != ".oxv") {
        throw UsageError(options.in +
                         " is not an oxv file; other videos can be converted to .oxv and .mcap files only");
    }
    return convertFilm(options);
}

const VerbRegistration registration(Verb<Options>{
    .group = "video",
    .name = "convert",
    .summary = "Convert a recording for other programs, or a video file to a recording",
    .example = "  kr video convert corridor.oxv corridor.mkv\n"
               "  kr video convert corridor.oxv --stream 1 --from 100 --to 199 frame-%04d.png\n"
               "  kr video convert corridor.oxv corridor.mcap --compression lz4\n"
               "  kr video convert film.mp4 film.oxv",
    .run = convert,
});

} // namespace
} // namespace KR::tool::videoConvert
