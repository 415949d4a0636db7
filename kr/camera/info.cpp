// kr camera info

#include "camera/cameras.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <krplatform/krtext.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <cstdio>

namespace KR::tool::cameraInfo {

namespace {

struct Options {
    CameraOptions camera;
    bool json = false;

    void declare(Arguments& arguments) {
        camera.declare(arguments);
        arguments.addFlag("--json", json, "output as a JSON object");
    }
};

const char* describeModel(int model) {
    switch (model) {
    case 1:
        return "test picture";
    case 2:
        return "film";
    case 3:
        return "V4L2 device";
    case 4:
        return "GStreamer pipeline";
    case 5:
        return "camera or film on the network";
    case 6:
        return "still image";
    case 7:
        return "recording";
    default:
        return "unknown";
    }
}

void print(const KRCameraInfo& camera, double rate, std::size_t controls) {
    std::printf("camera %d\n", camera.camera);
    std::printf("  source    %s\n", escapeText(camera.source).c_str());
    std::printf("  kind      %s (%d)\n", describeModel(camera.model), camera.model);
    std::printf("  delivers  %dx%d pixels, %.1f images per second\n", camera.width, camera.height, rate);
    std::printf("  controls  %zu\n", controls);
}

// Rate of a few images by their time stamps, without the intervals in which a recording has started over.
double measureRate(Subscription& subscription) {
    constexpr int kIntervals = 10;
    int rises = 0;
    std::int64_t length_usec = 0;
    std::int64_t before = subscription.fetch()->timeStamp;
    for (int i = 0; i < kIntervals; ++i) {
        const std::int64_t now = subscription.fetch()->timeStamp;
        if (now > before) {
            length_usec += now - before;
            ++rises;
        }
        before = now;
    }
    return rises > 0 ? rises * 1e6 / static_cast<double>(length_usec) : 0;
}

// Opens the camera, as the size of its images is unknown until then.
ExitCode printCamera(const Options& options) {
    Cameras cameras(options.camera);
    KRVideoDeviceProxy& service = cameras.getService();
    const int number = options.camera.number;
    Subscription subscription(service, number, kVGA, kYUV422ColorSpace);
    const double rate = measureRate(subscription);
    const KRCameraInfo camera = service.getCameraList().at(static_cast<std::size_t>(number));
    const std::size_t controls = service.getControls(number).size();
    if (options.json) {
        printJson({{"camera", camera.camera},
                   {"source", camera.source},
                   {"model", camera.model},
                   {"width", camera.width},
                   {"height", camera.height},
                   {"rate_per_s", rate},
                   {"controls", controls}});
    } else {
        print(camera, rate, controls);
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "info",
    .summary = "Open a camera and show what it delivers",
    .example = "  kr camera info 0\n"
               "  kr camera info 0 --camera 0=v4l2:/dev/video0",
    .run = printCamera,
});

} // namespace
} // namespace KR::tool::cameraInfo
