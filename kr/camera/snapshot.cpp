// kr camera snapshot

#include "camera/cameras.hpp"
#include "image/coloroptions.hpp"
#include "image/imagefile.hpp"
#include "tool/command.hpp"
#include "tool/outputfile.hpp"

#include <string>

namespace KR::tool {

namespace {

struct Options {
    CameraOptions camera;
    GeometryOptions geometry;
    ColorOptions colors;
    std::string out;

    void declare(Arguments& arguments) {
        camera.declare(arguments);
        arguments.add("OUT", out, "file that ends in .oxi, .ppm, .png or .jpg; an existing one is replaced")
            .required();
        geometry.declare(arguments);
        colors.declare(arguments);
    }
};

ExitCode takeSnapshot(const Options& options) {
    requireImageExtension(options.out);
    Cameras cameras(options.camera);
    OutputFile out(options.out, "");
    Subscription subscription(cameras.getService(), options.camera.number, options.geometry.getResolution(),
                              options.geometry.getColorSpace());
    writeImage(*subscription.fetch(), out.getPath(), options.colors.getColors());
    out.commit();
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "snapshot",
    .summary = "Write one image of a camera to a file",
    .example = "  kr camera snapshot 0 now.png\n"
               "  kr camera snapshot 0 now.png --camera 0=v4l2:/dev/video0",
    .run = takeSnapshot,
});

} // namespace
} // namespace KR::tool
