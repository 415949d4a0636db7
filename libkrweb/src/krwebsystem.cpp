#include "krwebsystem.hpp"

#include "krwebmessages.hpp"

#include <krinterop/krjson.hpp>
#include <krplatform/krcamerainfo.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krsubscribername.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <optional>

namespace KR::web {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kInternalModule = "kr-"; // a running kr, which receives events
constexpr std::size_t kMaxNames = 4096;             // of keys, and of events

// A float as it looks in decimal.
Json number(float value) {
    return toJson(KRValue(value));
}

Json toJson(const KRDurations& durations) {
    return {{"median", number(durations.median_ms)},
            {"p99", number(durations.p99_ms)},
            {"max", number(durations.max_ms)}};
}

Json describeSize(int resolution) {
    int width = 0;
    int height = 0;
    setSizeFromResolution(resolution, width, height);
    return std::to_string(width) + "x" + std::to_string(height);
}

// \param logged  how many were logged; reset once there are few again
void limit(std::vector<std::string>& names, const char* what, std::size_t& logged) {
    if (names.size() <= kMaxNames) {
        logged = 0;
        return;
    }
    if (names.size() != logged) {
        logged = names.size();
        logWarning("krweb", "there are " + std::to_string(names.size()) + " " + what + "; the first " +
                                std::to_string(kMaxNames) + " are shown");
    }
    names.resize(kMaxNames);
}

const KRSubscriberInfo* findSubscriber(const std::vector<KRSubscriberInfo>& subscribers,
                                       const std::string& id) {
    const auto found = std::ranges::find(subscribers, id, &KRSubscriberInfo::id);
    return found == subscribers.end() ? nullptr : &*found;
}

// Calls a method without arguments; nullopt if the module does not have it.
std::optional<KRValue> ask(const KRProxy& proxy, const std::vector<KRMethodDescription>& methods,
                           const char* method) {
    const bool isPublished = std::ranges::any_of(methods, [&](const KRMethodDescription& each) {
        return each.name == method && each.argumentTypes.empty();
    });
    return isPublished ? std::optional(proxy.call<KRValue>(method)) : std::nullopt;
}

} // namespace

std::string getControlName(int camera, const std::string& control) {
    return "/camera/" + std::to_string(camera) + "/" + control;
}

System::System(boost::shared_ptr<KRBroker> broker, std::string domain, SystemEvents events)
    : broker_(std::move(broker)), domain_(std::move(domain)), events_(std::move(events)) {
    threads_.emplace_back([this] { run("krweb directory", &Interest::anybody, &System::askDirectory); });
    threads_.emplace_back([this] { run("krweb cameras", &Interest::cameras, &System::askCameras); });
    threads_.emplace_back([this] { run("krweb extractors", &Interest::extractors, &System::askExtractors); });
    threads_.emplace_back([this] { run("krweb controls", &Interest::controls, &System::askControls); });
}

System::~System() {
    {
        const KRLock lock(mutex_);
        stopping_ = true;
        changed_.notifyAll();
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

void System::setInterest(const Interest& interest) {
    const KRLock lock(mutex_);
    interest_ = interest;
    changed_.notifyAll();
}

void System::run(const char* name, bool Interest::*wanted, Ask ask) noexcept {
    setThreadName(name);
    KRLock lock(mutex_);
    while (!stopping_) {
        if (!(interest_.*wanted)) {
            changed_.wait(lock);
            continue;
        }
        const auto next = Clock::now() + kInterval;
        lock.unlock();
        try {
            (this->*ask)();
        } catch (...) {
            logWarning("krweb", std::string(name) + ": " + describeCurrentException());
        }
        lock.lock();
        changed_.waitUntil(lock, next, [&] {
            mutex_.assertHeld();
            return stopping_ || !(interest_.*wanted);
        });
    }
}

Methods System::getMethods(const std::string& module) {
    const KRProxy proxy(broker_, module);
    const std::uint32_t number = proxy.getModuleNumber();
    const auto found = known_.find(module);
    if (found != known_.end() && found->second.number == number) {
        return found->second.methods;
    }
    auto methods = std::make_shared<const std::vector<KRMethodDescription>>(proxy.getMethodList());
    known_.insert_or_assign(module, Known{number, methods});
    return methods;
}

void System::askDirectory() {
    Directory directory;
    for (const std::string& module : broker_->getModuleList()) {
        if (module.starts_with(kInternalModule)) {
            continue;
        }
        try {
            directory.methods.emplace(module, getMethods(module));
        } catch (const KRError&) { // NOLINT(bugprone-empty-catch): it has just exited
        }
    }
    std::erase_if(known_, [&](const auto& each) { return !directory.methods.contains(each.first); });
    directory.hasCameraService = directory.methods.contains("KRVideoDevice");
    if (directory.hasCameraService) {
        try {
            for (const KRCameraInfo& camera : KRVideoDeviceProxy(broker_).getCameraList()) {
                directory.cameras.push_back(camera.camera);
            }
        } catch (const KRError&) {
            directory.hasCameraService = false;
        }
    }
    if (directory.methods.contains("KRMemory")) {
        try {
            const KRMemoryProxy memory(broker_);
            directory.events = memory.getEventList();
            const std::set<std::string> events(directory.events.begin(), directory.events.end());
            directory.keys = memory.getDataList();
            std::erase_if(directory.keys, [&](const std::string& key) { return events.contains(key); });
            limit(directory.events, "events", loggedEvents_);
            limit(directory.keys, "keys in memory", loggedKeys_);
        } catch (const KRError&) { // NOLINT(bugprone-empty-catch): it has just gone
        }
    }
    if (hasDirectory_ && directory == lastDirectory_) {
        return;
    }
    lastDirectory_ = directory;
    hasDirectory_ = true;
    events_.onDirectory(std::move(directory));
}

void System::askCameras() {
    Json cameras = Json::array();
    bool hasService = false;
    try {
        const KRVideoDeviceProxy service(broker_);
        const auto list = service.getCameraList();
        const auto statistics = service.getStatistics();
        const auto subscribers = service.getSubscribers();
        hasService = true;
        for (const KRCameraInfo& camera : list) {
            Json subscriptions = Json::array();
            for (const KRSubscriptionStatistics& each : statistics) {
                if (each.camera != camera.camera) {
                    continue;
                }
                Json subscription = {{"name", each.id},
                                     {"delivered", each.delivered},
                                     {"missed", each.missed},
                                     {"age", toJson(each.age)},
                                     {"interval", toJson(each.interval)},
                                     {"hold", toJson(each.hold)}};
                if (const KRSubscriberInfo* settings = findSubscriber(subscribers, each.id)) {
                    subscription["resolution"] = settings->resolution;
                    subscription["size"] = describeSize(settings->resolution);
                    subscription["colorSpace"] = settings->colorSpace;
                    subscription["rate"] = settings->frameRate;
                }
                subscriptions.push_back(std::move(subscription));
            }
            Json controls = Json::array();
            for (const KRCameraControl& control : service.getControls(camera.camera)) {
                controls.push_back({{"id", control.id},
                                    {"name", control.name},
                                    {"parameter", getControlName(camera.camera, control.name)},
                                    {"type", control.minimum == 0 && control.maximum == 1 ? "bool" : "int"},
                                    {"min", control.minimum},
                                    {"max", control.maximum},
                                    {"step", control.step},
                                    {"default", control.defaultValue},
                                    {"value", control.value}});
            }
            cameras.push_back({{"camera", camera.camera},
                               {"source", camera.source},
                               {"state", camera.state},
                               {"open", camera.state == "open"},
                               {"failure", camera.failure},
                               {"width", camera.width},
                               {"height", camera.height},
                               {"subscriptions", std::move(subscriptions)},
                               {"controls", std::move(controls)}});
        }
    } catch (const KRError&) { // no camera service, or not any more
        hasService = false;
        cameras = Json::array();
    }
    events_.onCameras(
        share(dump({{"service", hasService}, {"domain", domain_}, {"cameras", std::move(cameras)}})));
}

void System::askExtractors() {
    const auto now = Clock::now();
    std::vector<KRSubscriptionStatistics> statistics;
    try {
        statistics = KRVideoDeviceProxy(broker_).getStatistics();
    } catch (const KRError&) { // NOLINT(bugprone-empty-catch): no camera service
    }
    std::set<std::string> annotating;
    try {
        for (const std::string& key : KRMemoryProxy(broker_).getDataList()) {
            if (key.ends_with(kAnnotationsSuffix)) {
                annotating.insert(key.substr(0, key.size() - kAnnotationsSuffix.size()));
            }
        }
    } catch (const KRError&) { // NOLINT(bugprone-empty-catch): no memory
    }
    Json extractors = Json::array();
    std::map<std::string, Fetched> fetched;
    for (const std::string& module : broker_->getModuleList()) {
        if (module.starts_with(kInternalModule)) {
            continue;
        }
        try {
            const KRProxy proxy(broker_, module);
            const auto methods = proxy.getMethodList();
            const auto subscribers = ask(proxy, methods, "getSubscribersInfo");
            const auto period = ask(proxy, methods, "getCurrentPeriod");
            const auto precision = ask(proxy, methods, "getCurrentPrecision");
            if (!subscribers || !period || !precision) {
                continue; // not an extractor
            }
            Json list = Json::array();
            for (std::size_t i = 0; i < subscribers->getSize(); ++i) {
                const KRValue& each = (*subscribers)[i];
                list.push_back({{"name", each[0].to<std::string>()},
                                {"period", each[1].to<int>()},
                                {"precision", number(each[2].to<float>())}});
            }
            const auto paused = ask(proxy, methods, "isPaused");
            Json extractor = {{"name", module},
                              {"vision", paused.has_value()},
                              {"period", period->to<int>()},
                              {"precision", number(precision->to<float>())},
                              {"annotations", annotating.contains(module)}};
            if (paused) {
                extractor["paused"] = paused->to<bool>();
                const auto running = ask(proxy, methods, "isProcessing");
                extractor["running"] = running ? running->to<bool>() : subscribers->getSize() > 0;
                for (const auto& [field, method] : {std::pair("camera", "getActiveCamera"),
                                                    {"resolution", "getResolution"},
                                                    {"colorSpace", "getColorSpace"}}) {
                    if (const auto value = ask(proxy, methods, method)) {
                        extractor[field] = value->to<int>();
                    }
                }
                for (const KRSubscriptionStatistics& each : statistics) {
                    if (!isSubscriptionOf(each.id, module)) {
                        continue;
                    }
                    fetched[each.id] = {now, each.delivered};
                    const auto before = fetched_.find(each.id);
                    const std::chrono::duration<double> seconds =
                        before == fetched_.end() ? Clock::duration(0) : now - before->second.when;
                    if (seconds.count() > 0 && each.delivered >= before->second.images) {
                        extractor["rate"] = number(
                            static_cast<float>((each.delivered - before->second.images) / seconds.count()));
                    }
                }
            } else {
                extractor["running"] = subscribers->getSize() > 0;
            }
            try {
                const std::string failure = proxy.getFailure();
                if (!failure.empty()) {
                    extractor["failure"] = failure;
                }
            } catch (const KRError&) { // NOLINT(bugprone-empty-catch): of an older version, which cannot tell
            }
            extractor["subscribers"] = std::move(list);
            extractors.push_back(std::move(extractor));
        } catch (const KRError&) { // NOLINT(bugprone-empty-catch): it has just exited
        }
    }
    fetched_ = std::move(fetched);
    events_.onExtractors(share(dump({{"extractors", std::move(extractors)}})));
}

void System::askControls() {
    std::map<std::string, int> values;
    try {
        const KRVideoDeviceProxy service(broker_);
        for (const KRCameraInfo& camera : service.getCameraList()) {
            for (const KRCameraControl& control : service.getControls(camera.camera)) {
                values[getControlName(camera.camera, control.name)] = control.value;
            }
        }
    } catch (const KRError&) {
        return; // no camera service
    }
    if (values != lastControls_) {
        lastControls_ = values;
        events_.onControls(std::move(values));
    }
}

} // namespace KR::web
