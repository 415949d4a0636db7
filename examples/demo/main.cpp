// The whole system in one process: a broker, cameras, a motion extractor per camera, two clients on each.

#include "client.hpp"
#include "picture.hpp"
#include "watchedmotion.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krthread.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <vector>

namespace {

volatile std::sig_atomic_t interrupted = 0;

struct Options {
    int seconds = 15;
    std::vector<std::string> cameras{"test", "test:snow"};
    std::string picture = "demo.png";
};

/// A change that the demo makes at some point.
struct Step {
    double at; // fraction of the running time
    std::function<void()> act;
};

class Demo {
public:
    explicit Demo(const Options& options) : options_(options) {
        cameras_ = KR::createModule<KR::KRVideoDevice>(broker_, "KRVideoDevice", options.cameras);
    }

    void run() {
        for (std::size_t i = 0; i < options_.cameras.size(); ++i) {
            std::printf("camera %zu is %s\n", i, options_.cameras[i].c_str());
            std::fflush(stdout);
            try {
                start(static_cast<int>(i));
            } catch (const KR::KRError& error) {
                std::fprintf(stderr, "demo: camera %zu (%s) does not work, continuing without it: %s\n", i,
                             options_.cameras[i].c_str(), error.what());
                failed_ = true;
            }
        }
        if (watches_.empty()) {
            return;
        }
        std::vector<Step> steps = planSteps();
        const auto start = std::chrono::steady_clock::now();
        for (int second = 1; second <= options_.seconds && interrupted == 0; ++second) {
            const auto tick = start + std::chrono::seconds(second);
            while (!steps.empty() && steps.front().at * options_.seconds <= second) {
                KR::sleepUntil(start + std::chrono::milliseconds(
                                           static_cast<int>(steps.front().at * options_.seconds * 1000)));
                steps.front().act();
                steps.erase(steps.begin());
            }
            KR::sleepUntil(tick);
            report(second);
        }
        takePicture();
        for (const Watch& watch : watches_) {
            watch.direct->unsubscribe();
            watch.byEvent->unsubscribe();
            say("%s got %d events", watch.byEvent->getName().c_str(), watch.byEvent->getEventCount());
        }
    }

    /// Shuts everything down. \return whether nothing was left running and no error or warning was logged
    bool shutDown() {
        bool clean = !failed_;
        for (const auto& [camera, extractor, direct, byEvent] : watches_) {
            const bool idle = !extractor->isProcessing() && extractor->getSubscribersInfo().getSize() == 0 &&
                              extractor->getFrameRate() == -1;
            if (!idle) {
                std::printf("%s is still running\n", extractor->getName().c_str());
            }
            clean = clean && idle;
        }
        watches_.clear();
        cameras_.reset();
        for (const std::string& module : broker_->getModuleList()) {
            if (module != "KRMemory") {
                std::printf("module %s still exists\n", module.c_str());
                clean = false;
            }
        }
        KR::flushLog();
        if (problems_ > 0) {
            std::printf("%d errors or warnings were logged\n", problems_.load());
        }
        return clean && problems_ == 0;
    }

private:
    /// A camera, the extractor on it, and its two subscribers.
    struct Watch {
        int camera;
        KR::KRModuleHandle<WatchedMotion> extractor;
        KR::KRModuleHandle<Client> direct;
        KR::KRModuleHandle<Client> byEvent;
    };

    void start(int camera) {
        const std::string name = "Motion" + std::to_string(camera);
        Watch watch{camera, KR::createModule<WatchedMotion>(broker_, name, camera),
                    KR::createModule<Client>(broker_, name + "Direct", name),
                    KR::createModule<Client>(broker_, name + "ByEvent", name)};
        say("%s subscribes to %s: 100 ms, precision 0.25", watch.direct->getName().c_str(), name.c_str());
        watch.direct->subscribe(100, 0.25F);
        const std::string event = watch.extractor->getMotionEvent();
        say("%s subscribes to the event %s: 33 ms, precision 1", watch.byEvent->getName().c_str(),
            event.c_str());
        watch.byEvent->subscribeToEvent(event, 33, 1.0F);
        watches_.push_back(std::move(watch));
    }

    template <class... Arguments>
    void say(const char* format, Arguments... arguments) {
        std::printf("-- ");
        std::printf(format, arguments...); // NOLINT: the formats are literals in this file
        std::printf("\n");
        std::fflush(stdout);
    }

    std::vector<Step> planSteps() {
        auto& extractor = *watches_.front().extractor;
        auto& client = *watches_.front().byEvent;
        return {
            {0.2,
             [&] {
                 say("%s goes to 640x480", extractor.getName().c_str());
                 extractor.setResolution(KR::kVGA);
             }},
            {0.4,
             [&] {
                 say("%s asks for 66 ms", client.getName().c_str());
                 client.updatePeriod(66);
             }},
            {0.6,
             [&] {
                 say("%s pauses", extractor.getName().c_str());
                 extractor.pause(true);
             }},
            {0.75,
             [&] {
                 say("%s resumes", extractor.getName().c_str());
                 extractor.pause(false);
             }},
        };
    }

    void report(int second) {
        for (const Watch& watch : watches_) {
            auto& extractor = *watch.extractor;
            const auto account = extractor.takeAccount();
            const Motion motion = extractor.getMotion();
            std::printf("%2d s %s: %2d frames, %4.1f/s, period %d ms, precision %.2f, %zu subscribers, "
                        "jitter %.1f ms, moving %4.1f %% at %.0f,%.0f %%%s\n",
                        second, extractor.getName().c_str(), account.frames, account.rate,
                        extractor.getCurrentPeriod(), static_cast<double>(extractor.getCurrentPrecision()),
                        extractor.getSubscribersInfo().getSize(), account.jitterMs,
                        100.0 * static_cast<double>(motion.amount), 100.0 * static_cast<double>(motion.x),
                        100.0 * static_cast<double>(motion.y), extractor.isPaused() ? ", paused" : "");
        }
        std::fflush(stdout);
    }

    void takePicture() {
        Picture picture;
        for (const Watch& watch : watches_) {
            picture.add(broker_, watch.camera, options_.cameras[static_cast<std::size_t>(watch.camera)],
                        watch.extractor->getName());
        }
        picture.writePng(options_.picture);
        std::printf("the picture is in %s\n", options_.picture.c_str());
    }

    const Options options_;
    std::atomic<int> problems_ = 0;
    KR::KRLogListener listener_{[this](const KR::KRLogRecord& record) {
        if (record.level == KR::KRLogLevel::Error || record.level == KR::KRLogLevel::Warning) {
            ++problems_;
        }
    }};
    boost::shared_ptr<KR::KRBroker> broker_ = KR::KRBroker::create("local:");
    KR::KRModuleHandle<KR::KRVideoDevice> cameras_;
    std::vector<Watch> watches_;
    bool failed_ = false; // a camera did not work
};

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"Watch cameras for motion, show what the modules do, and shut down."};
    app.add_option("--seconds", options.seconds, "Seconds to run")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option("--camera", options.cameras,
                   "Source of a camera, e.g. test or file:clip.mp4; once per camera");
    app.add_option("--picture", options.picture, "File for a picture of the cameras")->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }

    const auto interrupt = [](int) { interrupted = 1; };
    std::signal(SIGINT, interrupt);
    std::signal(SIGTERM, interrupt);
    try {
        Demo demo(options);
        demo.run();
        const bool clean = demo.shutDown();
        std::printf(clean ? "all clients have unsubscribed, and all modules shut down cleanly\n"
                          : "not everything shut down cleanly\n");
        return clean ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "demo: %s\n", error.what());
        return 1;
    }
}
