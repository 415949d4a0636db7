// kr camera info

#include "cameras.hpp"
#include "command.hpp"
#include "json.hpp"
#include "number.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace KR::tool {

namespace {

struct Options {
    ServiceOptions cameras;
    int camera = 0;
    bool json = false;
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

void show(const KRCameraInfo& camera, double rate, std::size_t controls) {
    std::printf("camera %d\n", camera.camera);
    std::printf("  source    %s\n", camera.source.c_str());
    std::printf("  kind      %s (%d)\n", describeModel(camera.model), camera.model);
    std::printf("  delivers  %dx%d pixels, %.1f images per second\n", camera.width, camera.height, rate);
    std::printf("  controls  %zu\n", controls);
}

// Of a few images, by their time stamps; without the intervals in which a recording has begun anew.
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

// Opens the camera: how large its images are shows when there is one.
ExitCode showCamera(const Options& options) {
    Cameras cameras(options.cameras);
    cameras.require(options.camera);
    KRVideoDeviceProxy& service = cameras.getService();
    Subscription subscription(service, options.camera, 2, 9);
    const double rate = measureRate(subscription);
    const KRCameraInfo camera = service.getCameraList().at(static_cast<std::size_t>(options.camera));
    const std::size_t controls = service.getControls(options.camera).size();
    if (options.json) {
        printJson({{"camera", camera.camera},
                   {"source", camera.source},
                   {"model", camera.model},
                   {"width", camera.width},
                   {"height", camera.height},
                   {"rate_per_s", rate},
                   {"controls", controls}});
    } else {
        show(camera, rate, controls);
    }
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("N", options->camera, "which camera")->required()->transform(wholeNumber(0));
    options->cameras.declare(app);
    app.add_flag("--json", options->json, "Writes an object");
    return [options] { return showCamera(*options); };
}

const CommandRegistration command({"camera", "info", "Opens a camera and shows what it delivers",
                                   "  kr camera info 0 --camera 0=v4l2:/dev/video0", declare});

} // namespace

} // namespace KR::tool
