// kr camera top

#include "camera/cameras.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/json.hpp"
#include "tool/output.hpp"
#include "tool/timestamp.hpp"
#include "tool/watchoptions.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>

#include <unistd.h>

namespace KR::tool::cameraTop {

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    ServiceOptions service;
    GeometryOptions geometry;
    WatchOptions watch;

    void declare(Arguments& arguments) {
        watch.declare(arguments, "tables", "a JSON object per table, a line each");
        geometry.declare(arguments);
        service.declare(arguments);
    }
};

std::string formatDurations(const KRDurations& durations) {
    return format(" %7.1f %7.1f %7.1f", static_cast<double>(durations.median_ms),
                  static_cast<double>(durations.p99_ms), static_cast<double>(durations.max_ms));
}

Json toJson(const KRDurations& durations) {
    const auto toMicroseconds = [](float milliseconds) {
        return std::llround(1000 * static_cast<double>(milliseconds));
    };
    return {{"median_usec", toMicroseconds(durations.median_ms)},
            {"p99_usec", toMicroseconds(durations.p99_ms)},
            {"max_usec", toMicroseconds(durations.max_ms)}};
}

std::string formatJsonTable(const KRVideoDeviceProxy& service) {
    Json subscriptions = Json::array();
    for (const KRSubscriptionStatistics& statistics : service.getStatistics()) {
        subscriptions.push_back({{"subscriber", statistics.id},
                                 {"camera", statistics.camera},
                                 {"delivered", statistics.delivered},
                                 {"missed", statistics.missed},
                                 {"age", toJson(statistics.age)},
                                 {"interval", toJson(statistics.interval)},
                                 {"hold", toJson(statistics.hold)}});
    }
    Json failures = Json::array();
    for (const KRCameraInfo& camera : service.getCameraList()) {
        if (!camera.failure.empty()) {
            failures.push_back({{"camera", camera.camera}, {"failure", camera.failure}});
        }
    }
    return formatJson(
               {{"time_usec", getTimeStamp()}, {"subscriptions", subscriptions}, {"failures", failures}}) +
           "\n";
}

std::string formatTable(const KRVideoDeviceProxy& service) {
    const auto subscriptions = service.getStatistics();
    std::size_t width = 10;
    for (const KRSubscriptionStatistics& statistics : subscriptions) {
        width = std::max(width, escapeText(statistics.id).size());
    }
    const int column = static_cast<int>(width);
    std::string table = formatTimeStamp(getTimeStamp()) + "\n";
    table += format("%-*s %6s %9s %7s   %-23s %-23s %-23s\n", column, "subscriber", "camera", "delivered",
                    "missed", "age: median p99 max, ms", "interval", "hold");
    for (const KRSubscriptionStatistics& statistics : subscriptions) {
        table += format("%-*s %6d %9d %7d  ", column, escapeText(statistics.id).c_str(), statistics.camera,
                        statistics.delivered, statistics.missed);
        table += formatDurations(statistics.age) + formatDurations(statistics.interval) +
                 formatDurations(statistics.hold) + "\n";
    }
    for (const KRCameraInfo& camera : service.getCameraList()) {
        if (!camera.failure.empty()) {
            table += format("camera %d has failed: %s\n", camera.camera, escapeText(camera.failure).c_str());
        }
    }
    return table;
}

/// Fetches the images of a camera as fast as they come, on its own thread.
class Load {
public:
    explicit Load(std::unique_ptr<Subscription> subscription)
        : subscription_(std::move(subscription)), thread_([this] { run(); }) {}
    ~Load() {
        ending_ = true;
        thread_.join();
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    void run() {
        while (!ending_) {
            try {
                subscription_->fetch();
            } catch (const std::exception&) {
                sleepMilliseconds(100); // the table shows the failure until the camera is back
            }
        }
    }

    const std::unique_ptr<Subscription> subscription_;
    std::atomic<bool> ending_ = false;
    std::thread thread_; // last: it uses the other members
};

ExitCode printTables(const Options& options) {
    Interruption interruption;
    Cameras cameras(options.service);
    KRVideoDeviceProxy& service = cameras.getService();
    Output output;
    {
        std::vector<std::unique_ptr<Load>> loads;
        if (cameras.isOwn()) { // nobody else subscribes to them
            for (const KRCameraInfo& camera : service.getCameraList()) {
                loads.push_back(std::make_unique<Load>(
                    subscribe(service, camera.camera, options.geometry, interruption)));
            }
        }
        const bool isJson = options.watch.json;
        const bool isTerminal = !isJson && ::isatty(STDOUT_FILENO) != 0;
        const auto end = options.watch.getEnd();
        auto next = Clock::now();
        for (int printed = 0; !options.watch.isEnough(printed) && next < end && !output.isBroken();
             ++printed) {
            next = std::min(end, next + std::chrono::seconds(1));
            if (interruption.waitFor(std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()))) {
                break;
            }
            std::string table;
            try {
                table = isJson ? formatJsonTable(service) : formatTable(service);
            } catch (const KRError& error) { // the service may be restarting
                if (isJson) {
                    printError(describe(error));
                    continue;
                }
                table = escapeText(describe(error)) + "\n";
            }
            output.print((isTerminal ? "\x1b[H\x1b[2J" : "") + table, interruption); // home, clear the screen
        }
    }
    return output.finish(interruption);
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "top",
    .summary = "Show the statistics of all subscriptions to cameras every second",
    .example = "  kr camera top\n"
               "  kr camera top --count 1 --json\n"
               "  kr camera top --camera 0=test --camera 1=v4l2:/dev/video0\n"
               "It subscribes to cameras of --camera, and only watches those of a running system.",
    .run = printTables,
});

} // namespace
} // namespace KR::tool::cameraTop
