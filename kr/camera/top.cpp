// kr camera top

#include "camera/cameras.hpp"
#include "tool/command.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/output.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <unistd.h>

namespace KR::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kLongest_s = 1e7; // some months

struct Options {
    ServiceOptions service;
    GeometryOptions geometry;
    double seconds = 0;

    void declare(Arguments& arguments) {
        arguments.add("--seconds", seconds, "duration (default: until Ctrl-C)").realNumber(0.01, kLongest_s);
        geometry.declare(arguments);
        service.declare(arguments);
    }
};

std::string formatDurations(const KRDurations& durations) {
    return format(" %7.1f %7.1f %7.1f", static_cast<double>(durations.median_ms),
                  static_cast<double>(durations.p99_ms), static_cast<double>(durations.max_ms));
}

std::string formatTable(const KRVideoDeviceProxy& service) {
    std::string table = format("%-10s %6s %9s %7s   %-23s %-23s %-23s\n", "subscriber", "camera", "delivered",
                               "missed", "age: median p99 max, ms", "interval", "hold");
    for (const KRSubscriptionStatistics& statistics : service.getStatistics()) {
        table += format("%-10s %6d %9d %7d  ", escapeText(statistics.id).c_str(), statistics.camera,
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
        for (const KRCameraInfo& camera : service.getCameraList()) {
            loads.push_back(
                std::make_unique<Load>(subscribe(service, camera.camera, options.geometry, interruption)));
        }
        const bool isTerminal = ::isatty(STDOUT_FILENO) != 0;
        const std::chrono::duration<double> length(options.seconds);
        const auto start = Clock::now();
        auto next = start;
        bool isLast = false;
        while (!isLast && !output.isBroken()) {
            next += std::chrono::seconds(1);
            if (options.seconds > 0 && next >= start + length) {
                next = start + std::chrono::duration_cast<Clock::duration>(length);
                isLast = true;
            }
            if (interruption.waitFor(std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now()))) {
                break;
            }
            std::string table;
            try {
                table = formatTable(service);
            } catch (const KRError& error) { // the service may be restarting
                table = escapeText(error.getDescription()) + "\n";
            }
            output.print((isTerminal ? "\x1b[H\x1b[2J" : "") + table, interruption); // home, clear the screen
        }
    }
    return output.finish(interruption);
}

const VerbRegistration registration(Verb<Options>{
    .group = "camera",
    .name = "top",
    .summary = "Subscribe to all cameras and show the statistics of all subscriptions every second",
    .example = "  kr camera top --camera 0=test --camera 1=v4l2:/dev/video0",
    .run = printTables,
});

} // namespace
} // namespace KR::tool
