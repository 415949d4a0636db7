#include "record/recorder.hpp"

#include "camera/cameras.hpp"
#include "tool/command.hpp"

#include <krinterop/krmcaptopics.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krthread.hpp>
#include <krplatform/krvideodeviceproxy.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <set>
#include <utility>

#include <unistd.h>

namespace KR::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRetryInterval{200};
constexpr std::chrono::seconds kCheck{1};
constexpr std::chrono::seconds kPatience{2}; // with a camera, before it is reported

std::uint64_t getTime() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

/// Counts the images of a camera between two fetches, as reported by the camera service.
class MissedImages {
public:
    MissedImages(const Subscription& subscription, RecordQueue& queue, std::string topic)
        : subscription_(subscription), queue_(queue), topic_(std::move(topic)) {}

    /// \return false: the service does not know the subscription, or is away
    bool check() {
        try {
            const auto statistics = subscription_.getStatistics();
            if (!statistics) {
                return false;
            }
            queue_.noteMissed(topic_, static_cast<std::uint64_t>(std::max(statistics->missed - before_, 0)));
            before_ = statistics->missed;
            return true;
        } catch (const KRError&) {
            return false;
        }
    }

private:
    const Subscription& subscription_;
    RecordQueue& queue_;
    const std::string topic_;
    int before_ = 0;
};

std::string makeName() {
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    return "kr-record-" + std::string(host.data()) + "-" + std::to_string(::getpid());
}

} // namespace

/// This program as a module that the memory calls.
class Recorder::Listener : public KRModule {
public:
    Listener(boost::shared_ptr<KRBroker> broker, const std::string& name, const RecordSelection& selection,
             RecordQueue& queue)
        : KRModule(std::move(broker), name), all_(selection.all),
          events_(selection.events.begin(), selection.events.end()), queue_(queue) {
        functionName("onWrite", "Recorder", "Records a value or an event.");
        addParam("name", "Name of the key or event.");
        addParam("value", "Its value.");
        addParam("isEvent", "Whether it is an event.");
        advertiseMethod(getCurrentMethodDescription(), this, &Listener::onWrite);
        functionName("onEvent", "Recorder", "Records an event.");
        addParam("event", "Name of the event.");
        addParam("value", "Value that it was raised with.");
        advertiseMethod(getCurrentMethodDescription(), this, &Listener::onEvent);
        functionName("onEventsLost", "Recorder", "Counts what was dropped on the way here.");
        addParam("event", "Name of the event, or prefix of the keys.");
        addParam("count", "How many were dropped since the last call.");
        advertiseMethod(getCurrentMethodDescription(), this, &Listener::onEventsLost);
    }
    ~Listener() override { shutDown(); }

    void onWrite(const std::string& name, const KRValue& value, const bool& isEvent) {
        if (!isEvent || all_) {
            record(isEvent ? Recorded::Kind::Event : Recorded::Kind::Value, name, value);
        }
    }
    void onEvent(const std::string& event, const KRValue& value) {
        if (!all_) { // otherwise it comes as a write, too
            record(Recorded::Kind::Event, event, value);
        }
    }
    void onEventsLost(const std::string& event, const int& count) {
        const std::string topic =
            events_.contains(event) ? getEventTopic(event) : getMemoryTopic(event + "*");
        queue_.noteMissed(topic, static_cast<std::uint64_t>(std::max(count, 0)));
    }
    void record(Recorded::Kind kind, const std::string& name, const KRValue& value) {
        queue_.offer({.kind = kind, .name = name, .value = value, .time = getTime()});
    }

private:
    const bool all_;
    const std::set<std::string> events_; // that were subscribed to by name
    RecordQueue& queue_;
};

Recorder::Recorder(const boost::shared_ptr<KRBroker>& broker, const RecordSelection& selection,
                   RecordQueue& queue)
    : broker_(broker), selection_(selection), queue_(queue),
      listener_(createModule<Listener>(broker, makeName(), selection_, queue)) {
    if (selection.all || !selection.prefixes.empty() || !selection.events.empty()) {
        memoryWatch_ = std::thread([this] { watchMemory(); });
    }
    for (const int camera : selection_.cameras) {
        cameras_.emplace_back([this, camera] { recordCamera(camera); });
    }
    if (selection_.all) {
        cameraWatch_ = std::thread([this] { watchCameras(); });
    }
}

Recorder::~Recorder() {
    stop();
    for (std::thread* thread : {&cameraWatch_, &memoryWatch_}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
    for (std::thread& camera : cameras_) {
        camera.join();
    }
    listener_.reset();
}

bool Recorder::sleep() const {
    sleepMilliseconds(static_cast<int>(kRetryInterval.count()));
    return !stopping_;
}

void Recorder::report(std::string& said, const std::string& what) {
    if (said != what) {
        said = what;
        if (!what.empty()) {
            printError(what);
        }
    }
}

void Recorder::recordCamera(int camera) {
    setThreadName("kr camera " + std::to_string(camera));
    const std::string title = "camera " + std::to_string(camera);
    KRVideoDeviceProxy service(broker_);
    service.setServiceTimeout(std::chrono::milliseconds(0)); // waits here, where it can be stopped
    std::string said;
    while (!stopping_) {
        if (!broker_->getSession().waitForService("KRVideoDevice", kRetryInterval)) {
            report(said, title + ": waiting for the camera service");
            continue;
        }
        try {
            Subscription subscription(service, camera, selection_.resolution, selection_.colorSpace);
            fetchFrom(subscription, camera, said);
        } catch (const KRError& error) {
            report(said, title + ": " + error.getDescription());
            sleep();
        } catch (const std::exception& error) {
            report(said, title + ": " + error.what());
            sleep();
        }
    }
}

void Recorder::fetchFrom(Subscription& subscription, int camera, std::string& said) {
    const std::string title = "camera " + std::to_string(camera);
    MissedImages missed(subscription, queue_, getImageTopic(camera));
    auto last = Clock::now(); // image
    auto nextCheck = last + kCheck;
    bool isAway = false;
    while (!stopping_) {
        const auto start = Clock::now();
        std::unique_ptr<KRImage> image;
        try {
            image = subscription.fetch();
        } catch (const KRError& error) { // the camera is slow or failing, or its service is away
            if (!isAway && Clock::now() - last > kPatience) {
                isAway = true;
                queue_.noteInterruption();
                report(said, title + ": " + error.getDescription());
            }
            if (Clock::now() - start < kRetryInterval / 2) {
                sleep();
            }
            continue;
        }
        last = Clock::now();
        if (!said.empty()) {
            report(said, title + " is back");
            said.clear();
            isAway = false;
        }
        const std::uint64_t time = image->timeStamp > 0 ? toNanoseconds(image->timeStamp) : getTime();
        queue_.offer(
            {.kind = Recorded::Kind::Image, .camera = camera, .name = {}, .image = *image, .time = time});
        if (last >= nextCheck) {
            nextCheck = last + kCheck;
            if (!missed.check()) {
                queue_.noteInterruption();
                return; // a new service, with another identifier for the subscription
            }
        }
    }
    missed.check();
}

void Recorder::watchCameras() {
    std::set<int> known(selection_.cameras.begin(), selection_.cameras.end());
    const KRVideoDeviceProxy service(broker_);
    do {
        try {
            for (const KRCameraInfo& camera : service.getCameraList()) {
                if (known.insert(camera.camera).second) {
                    cameras_.emplace_back([this, number = camera.camera] { recordCamera(number); });
                }
            }
        } catch (const KRError&) { // NOLINT(bugprone-empty-catch): the service is not there, or not any more
        }
    } while (sleep());
}

void Recorder::subscribeToMemory() {
    KRMemoryProxy memory(broker_);
    const std::vector<std::string> prefixes =
        selection_.all ? std::vector<std::string>{""} : selection_.prefixes;
    for (const std::string& prefix : prefixes) {
        memory.subscribeToWrites(prefix, listener_->getName(), "onWrite");
    }
    // Existing values. The key of an event holds its last value, which is not a new event.
    const std::vector<std::string> events = memory.getEventList();
    for (const std::string& prefix : prefixes) {
        for (const std::string& key : memory.getDataList(prefix)) {
            if (std::ranges::find(events, key) != events.end()) {
                continue;
            }
            try {
                listener_->record(Recorded::Kind::Value, key, memory.getData(key));
            } catch (const KRError&) { // NOLINT(bugprone-empty-catch): removed meanwhile
            }
        }
    }
    for (const std::string& event : selection_.events) {
        memory.subscribeToEvent(event, listener_->getName(), "onEvent");
    }
}

void Recorder::watchMemory() {
    setThreadName("kr memory");
    const KRMemoryProxy memory(broker_);
    std::uint32_t subscribed = 0; // number of the memory module that has our subscriptions
    bool isAway = false;
    std::string said;
    do {
        const std::uint32_t now = memory.getProxy().getModuleNumber();
        try {
            if (now == 0 && subscribed != 0 && !isAway) {
                isAway = true;
                queue_.noteInterruption();
                report(said, "the memory module is away");
            } else if (now == 0 && subscribed == 0) {
                report(said, "waiting for the memory module");
            }
            if (now != 0 && now != subscribed) {
                subscribeToMemory();
                if (subscribed != 0 && !isAway) {
                    queue_.noteInterruption(); // it was replaced between two polls
                }
                report(said, isAway ? "the memory module is back" : "");
                isAway = false;
                subscribed = now;
            }
        } catch (const KRError& error) {
            report(said, error.getDescription());
        }
    } while (sleep());
    try {
        KRMemoryProxy proxy(broker_);
        for (const std::string& event : selection_.events) {
            proxy.unsubscribeFromEvent(event, listener_->getName());
        }
    } catch (const KRError&) { // NOLINT(bugprone-empty-catch): the memory is gone
    }
}

} // namespace KR::tool
