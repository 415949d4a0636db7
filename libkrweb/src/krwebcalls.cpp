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

namespace KR::web {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLinger{2}; // with a camera, for more settings to come

// Names of the arguments; one without a usable name is called "arg" and its place.
std::vector<std::string> getArgumentNames(const KRMethodDescription& method) {
    std::vector<std::string> names;
    std::set<std::string> taken;
    for (const auto& parameter : method.parameters) {
        const bool isUsable = !parameter.name.empty() && !taken.contains(parameter.name);
        names.push_back(isUsable ? parameter.name : "arg" + std::to_string(names.size()));
        taken.insert(names.back());
    }
    return names;
}

Json describeType(KRArgumentType type, const std::string& description) {
    Json schema = Json::object();
    switch (type) {
    case KRArgumentType::Bool:
        schema["type"] = "boolean";
        break;
    case KRArgumentType::Int:
        schema["type"] = "integer";
        break;
    case KRArgumentType::Float:
        schema["type"] = "number";
        break;
    case KRArgumentType::String:
        schema["type"] = "string";
        break;
    case KRArgumentType::Binary:
        schema = {{"type", "object"}, {"properties", {{"base64", {{"type", "string"}}}}}};
        break;
    case KRArgumentType::Array:
        schema["type"] = "array";
        break;
    case KRArgumentType::Void:
        schema["type"] = "null";
        break;
    case KRArgumentType::Value:
        break;
    }
    if (!description.empty()) {
        schema["description"] = description;
    }
    return schema;
}

Json describeArguments(const KRMethodDescription& method) {
    Json properties = Json::object();
    const std::vector<std::string> names = getArgumentNames(method);
    for (std::size_t i = 0; i < names.size(); ++i) {
        properties[names[i]] =
            describeType(i < method.argumentTypes.size() ? method.argumentTypes[i] : KRArgumentType::Value,
                         method.parameters[i].description);
    }
    return {{"type", "object"},
            {"description", method.description},
            {"properties", properties},
            {"required", names},
            {"additionalProperties", false}};
}

// One schema, or any of several.
Json combine(std::vector<Json> schemas) {
    return schemas.size() == 1 ? std::move(schemas.front()) : Json{{"anyOf", schemas}};
}

KRValue readArgument(const Json& json, KRArgumentType type) {
    if (type == KRArgumentType::Float && json.is_number()) {
        return KRValue(json.get<float>()); // JavaScript writes 1.0 as 1
    }
    return toValue(json);
}

} // namespace

Json makeRequestSchema(const std::vector<KRMethodDescription>& methods, const std::string& method) {
    std::vector<Json> schemas;
    for (const KRMethodDescription& each : methods) {
        if (each.name == method) {
            schemas.push_back(describeArguments(each));
        }
    }
    return combine(std::move(schemas));
}

Json makeResponseSchema(const std::vector<KRMethodDescription>& methods, const std::string& method) {
    std::vector<Json> schemas;
    for (const KRMethodDescription& each : methods) {
        if (each.name == method) {
            Json schema = {
                {"type", "object"},
                {"properties", {{"value", describeType(each.resultType, each.result.description)}}}};
            if (std::ranges::find(schemas, schema) == schemas.end()) {
                schemas.push_back(std::move(schema));
            }
        }
    }
    return combine(std::move(schemas));
}

MethodCall readRequest(const std::vector<KRMethodDescription>& methods, const std::string& method,
                       std::string_view request) {
    const Json json = request.empty() ? Json::object() : Json::parse(request, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        throw std::invalid_argument("the request is not a JSON object with the names of the arguments");
    }
    std::string known;
    for (const KRMethodDescription& each : methods) {
        if (each.name != method) {
            continue;
        }
        const std::vector<std::string> names = getArgumentNames(each);
        if (names.size() != json.size() ||
            !std::ranges::all_of(names, [&](const std::string& name) { return json.contains(name); })) {
            known += (known.empty() ? "" : ", ") + each.getSignature();
            continue;
        }
        MethodCall call{&each, {}};
        for (std::size_t i = 0; i < names.size(); ++i) {
            const KRArgumentType type =
                i < each.argumentTypes.size() ? each.argumentTypes[i] : KRArgumentType::Value;
            try {
                call.arguments.push_back(readArgument(json[names[i]], type));
            } catch (const std::invalid_argument& error) {
                throw std::invalid_argument("argument " + names[i] + ": " + error.what());
            }
        }
        return call;
    }
    std::string given;
    for (const auto& [name, value] : json.items()) {
        given += (given.empty() ? "" : ", ") + escapeText(name, 60);
    }
    throw std::invalid_argument(method + " cannot be called with the arguments {" + given +
                                "}; there is: " + known);
}

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
            place.thread = std::thread([this, &place, module, method, methods = std::move(methods),
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
            });
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
            } else if (!changed_.waitFor(lock, kLinger, isWanted)) {
                lock.unlock();
                closeUnused(Clock::now() - kLinger);
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
