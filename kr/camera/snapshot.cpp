// kr camera snapshot

#ifdef KR_WITH_DDS
#include "camera/annotatedimage.hpp"
#include "system/livenames.hpp"
#endif
#include "camera/cameras.hpp"
#include "image/coloroptions.hpp"
#include "image/imagefile.hpp"
#include "tool/command.hpp"
#include "tool/outputfile.hpp"

#include <string>

namespace KR::tool::cameraSnapshot {

namespace {

struct Options {
    CameraOptions camera;
    GeometryOptions geometry;
    ColorOptions colors;
    std::string out;
    std::string annotator;

    void declare(Arguments& arguments) {
        camera.declare(arguments);
        arguments.add("OUT", out, "file that ends in .oxi, .ppm, .png or .jpg; an existing one is replaced")
            .required();
        geometry.declare(arguments);
        colors.declare(arguments);
#ifdef KR_WITH_DDS
        arguments.add("--annotations", annotator, "module whose annotations of the image are drawn into it")
            .valueName("MODULE")
            .completes([](const std::string& broker) { return completeModule({}, broker); })
            .excludes("--camera");
#endif
    }
};

ExitCode takeSnapshot(const Options& options) {
    requireImageExtension(options.out);
    Cameras cameras(options.camera);
    OutputFile out(options.out, "");
    Subscription subscription(cameras.getService(), options.camera.number, options.geometry.getResolution(),
                              options.geometry.getColorSpace());
#ifdef KR_WITH_DDS
    const auto image =
        options.annotator.empty()
            ? subscription.fetch()
            : fetchAnnotatedImage(cameras, subscription, options.camera.number, options.annotator);
#else
    const auto image = subscription.fetch();
#endif
    writeImage(*image, out.getPath(), options.colors.getColors());
    out.commit();
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "snapshot",
    .summary = "Write one image of a camera to a file",
    .example = "  kr camera snapshot 0 now.png\n"
               "  kr camera snapshot 0 now.png --annotations KRMotion\n"
               "  kr camera snapshot 0 now.png --camera 0=v4l2:/dev/video0",
    .run = takeSnapshot,
});

} // namespace
} // namespace KR::tool::cameraSnapshot
