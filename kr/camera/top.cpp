// kr camera top

#include "cameras.hpp"
#include "command.hpp"
#include "interruption.hpp"
#include "number.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krthread.hpp>

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

namespace KR::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kLongest = 1e7; // seconds, some months

struct Options {
    ServiceOptions cameras;
    GeometryOptions geometry;
    double seconds = 0;
};

void show(const KRVideoDeviceProxy& service) {
    std::printf("%-10s %6s %9s %7s   %-23s %-23s %-23s\n", "subscriber", "camera", "delivered", "missed",
                "age: median p99 max, ms", "interval", "hold");
    const auto print = [](const KRDurations& durations) {
        std::printf(" %7.1f %7.1f %7.1f", static_cast<double>(durations.median_ms),
                    static_cast<double>(durations.p99_ms), static_cast<double>(durations.max_ms));
    };
    for (const KRSubscriptionStatistics& statistics : service.getStatistics()) {
        std::printf("%-10s %6d %9d %7d  ", statistics.id.c_str(), statistics.camera, statistics.delivered,
                    statistics.missed);
        print(statistics.age);
        print(statistics.interval);
        print(statistics.hold);
        std::printf("\n");
    }
    for (const KRCameraInfo& camera : service.getCameraList()) {
        if (!camera.failure.empty()) {
            std::printf("camera %d has failed: %s\n", camera.camera, camera.failure.c_str());
        }
    }
    std::fflush(stdout);
}

/// Fetches the images of a camera as fast as they come, on a thread of its own.
class Load {
public:
    Load(KRVideoDeviceProxy& service, int camera, int resolution, int colorSpace)
        : subscription_(service, camera, resolution, colorSpace), thread_([this] { run(); }) {}
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
                subscription_.fetch();
            } catch (const std::exception&) {
                sleepMilliseconds(100); // the table shows that it has failed, until it is back
            }
        }
    }

    Subscription subscription_;
    std::atomic<bool> ending_ = false;
    std::thread thread_;
};

ExitCode showStatistics(const Options& options) {
    Interruption interruption;
    Cameras cameras(options.cameras);
    KRVideoDeviceProxy& service = cameras.getService();
    const int resolution = options.geometry.getResolution();
    const int colorSpace = options.geometry.getColorSpace();
    std::vector<std::unique_ptr<Load>> loads;
    for (const KRCameraInfo& camera : service.getCameraList()) {
        loads.push_back(doInterruptibly(interruption, [&] {
            return std::make_unique<Load>(service, camera.camera, resolution, colorSpace);
        }));
    }
    const bool terminal = ::isatty(STDOUT_FILENO) != 0;
    const auto start = Clock::now();
    const std::chrono::duration<double> length(options.seconds);
    auto next = start;
    bool last = false;
    while (!last && std::ferror(stdout) == 0 && !interruption.hasCome()) {
        next += std::chrono::seconds(1);
        if (options.seconds > 0 && next >= start + length) {
            next = start + std::chrono::duration_cast<Clock::duration>(length);
            last = true;
        }
        while (Clock::now() < next && !interruption.hasCome()) {
            sleepUntil(std::min(next, Clock::now() + std::chrono::milliseconds(100)));
        }
        if (terminal) {
            std::printf("\x1b[H\x1b[2J"); // the upper left corner of an empty screen
        }
        show(service);
    }
    return ExitCode::Done;
}

std::function<ExitCode()> declare(CLI::App& app) {
    auto options = std::make_shared<Options>();
    app.add_option("--seconds", options->seconds, "how long; until Ctrl-C if it is not told")
        ->check(realNumber(0.01, kLongest));
    options->geometry.declare(app);
    options->cameras.declare(app);
    return [options] { return showStatistics(*options); };
}

const CommandRegistration
    command({"camera", "top", "Subscribes to all cameras and shows every second what the subscriptions get",
             "  kr camera top --camera 0=test --camera 1=v4l2:/dev/video0", declare});

} // namespace

} // namespace KR::tool
