// kr video extract

#include "image/coloroptions.hpp"
#include "image/imagefile.hpp"
#include "tool/command.hpp"
#include "tool/outputfile.hpp"
#include "video/frames.hpp"

#include <string>

namespace KR::tool {

namespace {

struct Options {
    std::string file;
    std::string out;
    std::uint64_t frame = 0;
    std::size_t stream = 0;
    ColorOptions colors;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "oxv file").required();
        arguments.add("--frame", frame, "frame number, from 0").required().wholeNumber(0);
        arguments.add("--stream", stream, "stream number").wholeNumber(0).showDefault();
        arguments.add("OUT", out, "file that ends in .png, .ppm, .jpg or .oxi; an existing one is replaced")
            .required();
        colors.declare(arguments);
    }
};

ExitCode extract(const Options& options) {
    requireImageExtension(options.out);
    OutputFile out(options.out, options.file);
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
} // namespace KR::tool
