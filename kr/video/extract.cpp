// kr video extract

#include "command.hpp"
#include "frames.hpp"
#include "number.hpp"
#include "outputfile.hpp"
#include "pictureconversion.hpp"

#include <CLI/CLI.hpp>

#include <memory>
#include <stdexcept>

namespace KR::tool {

namespace {

struct Options {
    std::string file;
    std::string out;
    std::uint64_t frame = 0;
    std::size_t stream = 0;
};

ExitCode extract(const Options& options) {
    const std::string extension = getExtension(options.out);
    if (extension != ".oxi" && !isPictureExtension(extension)) {
        throw UsageError(options.out + ": the extension says the format: .png, .ppm, .jpg or .oxi");
    }
    OutputFile out(options.out, options.file);
    KROxvFile recording(options.file);
    Frames frames(recording, options.stream);
    const KRImage& image = frames.read(options.frame);
    if (extension != ".oxi") {
        writePicture(makePicture(image), out.getPath());
    } else if (!image.writeFile(out.getPath().c_str())) {
        throw std::runtime_error(options.out + ": cannot be written");
    }
    out.commit();
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("FILE", options->file, "an oxv file")->required();
    app.add_option("--frame", options->frame, "which frame; 0 is the first one")
        ->required()
        ->transform(wholeNumber(0));
    app.add_option("--stream", options->stream, "0 is the first one, and taken if it is not told")
        ->transform(wholeNumber(0));
    app.add_option("OUT", options->out,
                   "a name that ends in .png, .ppm, .jpg or .oxi; replaced if it is there")
        ->required();
    return [options] { return extract(*options); };
}

const CommandRegistration command({"video", "extract", "Makes a picture of one frame of a recording",
                                   "  kr video extract corridor.oxv --frame 120 frame.png", declare});

} // namespace

} // namespace KR::tool
