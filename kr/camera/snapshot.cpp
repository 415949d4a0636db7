// kr camera snapshot

#include "cameras.hpp"
#include "command.hpp"
#include "number.hpp"
#include "outputfile.hpp"
#include "pictureconversion.hpp"

#include <CLI/CLI.hpp>

#include <memory>
#include <stdexcept>

namespace KR::tool {

namespace {

struct Options {
    ServiceOptions cameras;
    GeometryOptions geometry;
    int camera = 0;
    std::string out;
};

ExitCode takeSnapshot(const Options& options) {
    const std::string extension = getExtension(options.out);
    if (extension != ".oxi" && !isPictureExtension(extension)) {
        throw UsageError(options.out + ": the extension says the format: .oxi, .ppm, .png or .jpg");
    }
    Cameras cameras(options.cameras);
    cameras.require(options.camera);
    OutputFile out(options.out, "");
    Subscription subscription(cameras.getService(), options.camera, options.geometry.getResolution(),
                              options.geometry.getColorSpace());
    const std::unique_ptr<KRImage> image = subscription.fetch();
    if (extension == ".oxi") {
        if (!image->writeFile(out.getPath().c_str())) {
            throw std::runtime_error(options.out + ": cannot be written");
        }
    } else {
        writePicture(makePicture(*image), out.getPath());
    }
    out.commit();
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("N", options->camera, "which camera")->required()->transform(wholeNumber(0));
    app.add_option("OUT", options->out,
                   "a name that ends in .oxi, .ppm, .png or .jpg; replaced if it is there")
        ->required();
    options->geometry.declare(app);
    options->cameras.declare(app);
    return [options] { return takeSnapshot(*options); };
}

const CommandRegistration command({"camera", "snapshot", "Writes one image of a camera to a file",
                                   "  kr camera snapshot 0 now.png --camera 0=v4l2:/dev/video0", declare});

} // namespace

} // namespace KR::tool
