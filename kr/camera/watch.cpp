// kr camera watch

#include "camera/cameras.hpp"
#include "camera/silence.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/json.hpp"
#include "tool/output.hpp"
#include "tool/timestamp.hpp"
#include "tool/watchoptions.hpp"

#include <cstdint>
#include <memory>
#include <optional>

namespace KR::tool::cameraWatch {

namespace {

struct Options {
    CameraOptions camera;
    GeometryOptions geometry;
    WatchOptions watch;

    void declare(Arguments& arguments) {
        camera.declare(arguments);
        watch.declare(arguments, "images", "a JSON object per image, a line each");
        geometry.declare(arguments);
    }
};

std::string formatDurations(const char* what, const KRDurations& durations) {
    return format("%-9s median %7.1f ms   p99 %7.1f ms   max %7.1f ms\n", what,
                  static_cast<double>(durations.median_ms), static_cast<double>(durations.p99_ms),
                  static_cast<double>(durations.max_ms));
}

// Capture time, interval to the previous image, the rate that this makes, and the images of the camera missed between.
std::string formatImage(const KRImage& image, std::int64_t before, int missed) {
    std::string line = formatTimeStamp(image.timeStamp);
    if (before >= 0) {
        const double interval_ms = static_cast<double>(image.timeStamp - before) / 1000;
        line += format("  %8.1f ms  %6.1f /s  %d missed", interval_ms,
                       interval_ms > 0 ? 1000 / interval_ms : 0, missed);
    }
    return line + "\n";
}

// The same for programs; intervals are null for the first image.
std::string formatImageAsJson(const KRImage& image, std::int64_t before, int missed) {
    const Json interval = before >= 0 ? Json(image.timeStamp - before) : Json(nullptr);
    return formatJson({{"time_usec", image.timeStamp}, {"interval_usec", interval}, {"missed", missed}}) +
           "\n";
}

/// Prints the images of a subscription, across restarts of the service.
class ImageLog {
public:
    ImageLog(const Subscription& subscription, bool isJson, Output& output, Interruption& interruption)
        : subscription_(subscription), isJson_(isJson), output_(output), interruption_(interruption) {}

    void print(const KRImage& image) {
        const std::optional<KRSubscriptionStatistics> statistics = subscription_.getStatistics();
        int missed = 0;
        if (statistics) {
            const bool isSame = statistics->missed >= missedBefore_; // as counted by the same service
            missed = statistics->missed - (isSame ? missedBefore_ : 0);
            missedBefore_ = statistics->missed;
            statistics_ = statistics;
        }
        output_.print((isJson_ ? formatImageAsJson : formatImage)(image, timeBefore_, missed), interruption_);
        timeBefore_ = image.timeStamp;
        ++images_;
        missed_ += missed;
    }
    void printSummary() {
        if (isJson_) {
            return;
        }
        output_.print(format("%d images, %d missed\n", images_, missed_), interruption_);
        if (statistics_) {
            output_.print(formatDurations("interval", statistics_->interval), interruption_);
            output_.print(formatDurations("age", statistics_->age), interruption_);
        }
    }
    int countImages() const noexcept { return images_; }

private:
    const Subscription& subscription_;
    const bool isJson_;
    Output& output_;
    Interruption& interruption_;
    std::int64_t timeBefore_ = -1;
    int missedBefore_ = 0; // as the service counted at the previous image
    int images_ = 0;
    int missed_ = 0;
    std::optional<KRSubscriptionStatistics> statistics_; // the newest
};

ExitCode watch(const Options& options) {
    Interruption interruption;
    Cameras cameras(options.camera);
    Output output;
    ExitCode code = ExitCode::Done;
    {
        const auto subscription =
            subscribe(cameras.getService(), options.camera.number, options.geometry, interruption);
        ImageLog log(*subscription, options.watch.json, output, interruption);
        Silence silence;
        const auto end = options.watch.getEnd();
        while (!options.watch.isEnough(log.countImages()) && WatchOptions::Clock::now() < end &&
               !output.isBroken() && !interruption.hasCome()) {
            silence.beginFetch();
            try {
                log.print(*subscription->fetch());
                silence.end();
            } catch (const KRError& error) {
                if (!silence.goOn(error, interruption)) {
                    printError(describe(error));
                    code = ExitCode::Failed;
                    break;
                }
            }
        }
        log.printSummary();
    }
    const ExitCode written = output.finish(interruption);
    return code == ExitCode::Done ? written : code;
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "watch",
    .summary = "Print a line for each image of a camera",
    .example =
        "  kr camera watch 0 --count 100\n"
        "  kr camera watch 0 --resolution 1280x960 --seconds 10 --json\n"
        "  kr camera watch 0 --camera 0=v4l2:/dev/video0\n"
        "Late images and restarts of the service are reported; it ends with exit code 1 after ten seconds\n"
        "without an image.",
    .run = watch,
});

} // namespace
} // namespace KR::tool::cameraWatch
