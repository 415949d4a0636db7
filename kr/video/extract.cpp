// kr video extract

#include "image/coloroptions.hpp"
#include "image/imagefile.hpp"
#include "tool/command.hpp"
#include "tool/outputfile.hpp"
#include "video/frames.hpp"
#include "video/mcap.hpp"

#include <functional>
#include <stdexcept>

#include <string>

namespace KR::tool::videoExtract {

namespace {

struct Options {
    std::string file;
    std::string out;
    std::uint64_t frame = 0;
    std::size_t stream = 0;
    ColorOptions colors;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "oxv or mcap file").required();
        arguments.add("--frame", frame, "frame number, from 0").required().wholeNumber(0);
        arguments.add("--stream", stream, "stream number").wholeNumber(0).showDefault();
        arguments.add("OUT", out, "file that ends in .png, .ppm, .jpg or .oxi; an existing one is replaced")
            .required();
        colors.declare(arguments);
    }
};

void extractFromMcap(const Options& options, const std::string& path) {
    McapContent content;
    {
        Progress progress(0);
        content = readMcap(options.file, progress);
    }
    const auto readNext =
        openMcapImages(options.file, chooseMcapImages(options.file, content, options.stream, options.frame));
    const KRImage* image = readNext();
    for (std::uint64_t frame = 0; image != nullptr && frame < options.frame; ++frame) {
        image = readNext();
    }
    if (image == nullptr) {
        throw std::runtime_error(options.file + ": it changes while it is read");
    }
    writeImage(*image, path, options.colors.getColors());
}

ExitCode extract(const Options& options) {
    requireImageExtension(options.out);
    OutputFile out(options.out, options.file);
    if (isMcap(options.file)) {
        extractFromMcap(options, out.getPath());
        out.commit();
        return ExitCode::Done;
    }
    KROxvFile recording(options.file);
    Frames frames(recording, options.stream);
    writeImage(frames.read(options.frame), out.getPath(), options.colors.getColors());
    out.commit();
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "video",
    .name = "extract",
    .summary = "Write one frame of a recording as a picture",
    .example = "  kr video extract corridor.oxv --frame 120 frame.png",
    .run = extract,
});

} // namespace
} // namespace KR::tool::videoExtract
