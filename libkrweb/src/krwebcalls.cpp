#include "krwebcalls.hpp"

#include <krinterop/krjson.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>
#include <stdexcept>
#include <system_error>

namespace KR::web {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kCameraLinger{2}; // with a camera, for more settings to come

} // namespace

Calls::Calls(boost::shared_ptr<KRBroker> broker)
    : broker_(std::move(broker)), cameras_(broker_), thread_([this] { run(); }) {
    cameras_.setServiceTimeout(std::chrono::milliseconds(0));
}

Calls::~Calls() {
    std::list<Thread> calls;
    {
        const KRLock lock(mutex_);
        stopping_ = true;
        changed_.notifyAll();
    }
    thread_.join();
    for (;;) {
        {
            const KRLock lock(mutex_);
            calls.splice(calls.end(), calls_);
        }
        if (calls.empty()) {
            break;
        }
        for (Thread& call : calls) {
            call.thread.join();
        }
        calls.clear();
    }
}

bool Calls::call(const std::string& module, const std::string& method, Methods methods, std::string request,
                 std::function<void(Answer)> answer) {
    std::list<Thread> ended; // joined after the lock
    const auto joinEnded = [&] {
        for (Thread& each : ended) {
            each.thread.join();
        }
    };
    {
        const KRLock lock(mutex_);
        for (auto each = calls_.begin(); each != calls_.end();) {
            const auto here = each++;
            if (here->hasEnded) {
                ended.splice(ended.end(), calls_, here);
            }
        }
        if (!stopping_ && calls_.size() < kMaxCalls) {
            calls_.emplace_back();
            Thread& place = calls_.back();
            const auto run = [this, &place, module, method, methods = std::move(methods),
                              request = std::move(request), answer = std::move(answer)] {
                setThreadName("krweb call");
                Answer made;
                try {
                    const MethodCall call = readRequest(*methods, method, request);
                    const KRValue value = KRProxy(broker_, module).callValues(method, call.arguments);
                    const bool isBool = call.method->resultType == KRArgumentType::Bool && value.isInt();
                    made.payload = dump({{"value", isBool ? Json(value.to<int>() != 0) : toJson(value)}});
                } catch (const KRError& error) {
                    made.failure = module + "." + method + ": " + error.getDescription();
                } catch (...) {
                    made.failure = module + "." + method + ": " + describeCurrentException();
                }
                try {
                    answer(std::move(made));
                } catch (...) { // no memory for the answer
                    logWarning("krweb", module + "." + method + ": " + describeCurrentException());
                }
                const KRLock ending(mutex_);
                place.hasEnded = true;
            };
            try {
                place.thread = std::thread(run);
            } catch (const std::system_error& error) { // the system has no thread left
                logWarning("krweb", module + "." + method + ": " + error.what());
                calls_.pop_back();
                joinEnded();
                return false;
            }
            joinEnded();
            return true;
        }
    }
    joinEnded();
    return false;
}

bool Calls::useParameters(std::vector<std::pair<std::string, Json>> settings, std::vector<std::string> names,
                          std::function<void(Parameters)> answer) {
    const KRLock lock(mutex_);
    if (stopping_ || waiting_.size() >= kMaxWaiting) {
        return false;
    }
    waiting_.push_back([this, settings = std::move(settings), names = std::move(names),
                        answer = std::move(answer)] { answer(apply(settings, names)); });
    changed_.notifyAll();
    return true;
}

void Calls::run() noexcept {
    setThreadName("krweb parameters");
    KRLock lock(mutex_);
    while (!stopping_) {
        if (waiting_.empty()) {
            const auto isWanted = [this] {
                mutex_.assertHeld();
                return stopping_ || !waiting_.empty();
            };
            if (opened_.empty()) {
                changed_.wait(lock, isWanted);
            } else if (!changed_.waitFor(lock, kCameraLinger, isWanted)) {
                lock.unlock();
                closeUnused(Clock::now() - kCameraLinger);
                lock.lock();
            }
            continue;
        }
        const std::function<void()> work = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        try {
            work();
        } catch (...) {
            logWarning("krweb", "parameters: " + describeCurrentException());
        }
        lock.lock();
    }
    lock.unlock();
    closeUnused(Clock::time_point::max());
}

void Calls::closeUnused(Clock::time_point before) {
    std::erase_if(opened_, [&](const auto& opened) {
        if (opened.second.used > before) {
            return false;
        }
        try {
            cameras_.unsubscribe(opened.second.id);
        } catch (
            const KRError&) { // NOLINT(bugprone-empty-catch): the service is gone, and the subscription with it
        }
        return true;
    });
}

Calls::Parameters Calls::apply(const std::vector<std::pair<std::string, Json>>& settings,
                               const std::vector<std::string>& names) {
    Parameters result;
    std::set<std::string> wanted(names.begin(), names.end());
    for (const auto& [name, value] : settings) {
        wanted.insert(name);
        try {
            set(name, value);
        } catch (const KRError& error) {
            result.failures.push_back(escapeText(name, 200) + ": " + error.getDescription());
        } catch (const std::exception& error) {
            result.failures.push_back(escapeText(name, 200) + ": " + error.what());
        }
    }
    try {
        for (const KRCameraInfo& camera : cameras_.getCameraList()) {
            for (const KRCameraControl& control : cameras_.getControls(camera.camera)) {
                const std::string name = getControlName(camera.camera, control.name);
                if (wanted.empty() || wanted.contains(name)) {
                    result.values[name] = control.value;
                }
            }
        }
    } catch (const KRError& error) {
        result.failures.push_back(error.getDescription());
    }
    return result;
}

void Calls::set(const std::string& name, const Json& json) {
    const KRValue value = toValue(json);
    const bool isWhole = value.isFloat() && std::nearbyint(value.to<float>()) == value.to<float>() &&
                         std::abs(value.to<float>()) < 1e6F; // some clients have floats alone
    if (!value.isInt() && !isWhole) {
        throw std::invalid_argument(dump(json).substr(0, 60) + " is not a whole number");
    }
    const int number = value.isInt() ? value.to<int>() : static_cast<int>(value.to<float>());
    constexpr std::string_view kPrefix = "/camera/";
    const std::size_t slash = name.starts_with(kPrefix) ? name.find('/', kPrefix.size()) : std::string::npos;
    int camera = -1;
    if (slash != std::string::npos) {
        std::from_chars(name.data() + kPrefix.size(), name.data() + slash, camera);
    }
    if (camera < 0) {
        throw std::invalid_argument("there is no such parameter; they are called /camera/N/CONTROL");
    }
    const auto controls = cameras_.getControls(camera);
    const auto control = std::ranges::find(controls, name.substr(slash + 1), &KRCameraControl::name);
    if (control == controls.end()) {
        throw std::invalid_argument("camera " + std::to_string(camera) + " has no such control");
    }
    if (!opened_.contains(camera)) {
        opened_[camera].id = cameras_.subscribeCamera("krweb", camera, kVGA, kYUV422ColorSpace, 1);
    }
    opened_[camera].used = Clock::now();
    if (!cameras_.setCameraParameter(opened_[camera].id, control->id, number)) {
        throw std::invalid_argument("the camera refuses " + std::to_string(number) + "; " + control->name +
                                    " goes from " + std::to_string(control->minimum) + " to " +
                                    std::to_string(control->maximum));
    }
}

} // namespace KR::web
