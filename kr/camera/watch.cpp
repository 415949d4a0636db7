// kr camera watch

#include "cameras.hpp"
#include "command.hpp"
#include "interruption.hpp"
#include "number.hpp"
#include "timestamp.hpp"

#include <krplatform/krerror.hpp>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <memory>

namespace KR::tool {

namespace {

struct Options {
    ServiceOptions cameras;
    GeometryOptions geometry;
    int camera = 0;
    int frames = 0;
};

void show(const char* what, const KRDurations& durations) {
    std::printf("%-9s median %7.1f ms   p99 %7.1f ms   max %7.1f ms\n", what,
                static_cast<double>(durations.median_ms), static_cast<double>(durations.p99_ms),
                static_cast<double>(durations.max_ms));
}

// A line per image: when it was taken, how long after the one before, the rate that this makes, and how many images of
// the camera there were between the two.
void showImage(const KRImage& image, std::int64_t before, int missed) {
    std::printf("%s", formatTimeStamp(image.timeStamp).c_str());
    if (before >= 0) {
        const double interval_ms = static_cast<double>(image.timeStamp - before) / 1000;
        std::printf("  %8.1f ms  %6.1f /s  %d missed", interval_ms, interval_ms > 0 ? 1000 / interval_ms : 0,
                    missed);
    }
    std::printf("\n");
    std::fflush(stdout);
}

ExitCode watch(const Options& options) {
    Interruption interruption;
    Cameras cameras(options.cameras);
    cameras.require(options.camera);
    KRVideoDeviceProxy& service = cameras.getService();
    const int resolution = options.geometry.getResolution();
    const int colorSpace = options.geometry.getColorSpace();
    const auto subscription = doInterruptibly(interruption, [&] {
        return std::make_unique<Subscription>(service, options.camera, resolution, colorSpace);
    });
    ExitCode code = ExitCode::Done;
    std::int64_t before = -1;
    int missed = 0;
    for (int i = 0;
         (options.frames == 0 || i < options.frames) && std::ferror(stdout) == 0 && !interruption.hasCome();
         ++i) {
        try {
            const std::unique_ptr<KRImage> image = subscription->fetch();
            const int missedSoFar = subscription->getStatistics().missed;
            showImage(*image, before, missedSoFar - missed);
            before = image->timeStamp;
            missed = missedSoFar;
        } catch (const KRError& error) {
            complain(error.getDescription());
            code = ExitCode::Failed;
            break;
        }
    }
    const KRSubscriptionStatistics statistics = subscription->getStatistics();
    std::printf("%d images, %d missed\n", statistics.delivered, statistics.missed);
    show("interval", statistics.interval);
    show("age", statistics.age);
    return code;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("N", options->camera, "which camera")->required()->transform(wholeNumber(0));
    app.add_option("--frames", options->frames,
                   "how many images to wait for; 0, which means: until Ctrl-C, if it is "
                   "not told")
        ->transform(wholeNumber(0));
    options->geometry.declare(app);
    options->cameras.declare(app);
    return [options] { return watch(*options); };
}

const CommandRegistration command({"camera", "watch", "Shows when the images of a camera come",
                                   "  kr camera watch 0 --frames 100 --camera 0=v4l2:/dev/video0\n"
                                   "  kr camera watch 0 --resolution 1280x960 --broker dds:",
                                   declare});

} // namespace

} // namespace KR::tool
