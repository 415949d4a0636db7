#include "krplatform/krmodule.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krlogformat.hpp"
#include "krplatform/krmodulehandle.hpp"
#include "krplatform/krnearestnames.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"
#include "krmodule_p.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace KR {

namespace {

// Implemented by every module, unless it publishes a method of the same name.
constexpr std::string_view kGetMethodList = "getMethodList";
constexpr std::string_view kGetMethodHelp = "getMethodHelp";
constexpr std::string_view kGetFailure = "getFailure";
constexpr std::string_view kGetParameterList = "getParameterList";
constexpr std::string_view kGetLogLevels = "getLogLevels";
constexpr std::string_view kSetLogLevels = "setLogLevels";
constexpr std::string_view kGetLogRecords = "getLogRecords";

/// How well a value fits an argument type: 0 is exact, more is worse; nullopt if it does not fit.
std::optional<int> mismatch(KRArgumentType wanted, const KRValue& given) {
    using Type = KRValue::Type;
    const Type type = given.getType();
    switch (wanted) {
    case KRArgumentType::Bool:
    case KRArgumentType::Int:
        return type == Type::Int ? std::optional(0) : std::nullopt;
    case KRArgumentType::Float:
        return type == Type::Float ? std::optional(0) : type == Type::Int ? std::optional(1) : std::nullopt;
    case KRArgumentType::String:
        return type == Type::String ? std::optional(0) : std::nullopt;
    case KRArgumentType::Binary:
        return type == Type::Binary ? std::optional(0) : std::nullopt;
    case KRArgumentType::Array:
        return type == Type::Array ? std::optional(0) : std::nullopt;
    case KRArgumentType::Value:
        return 2;
    case KRArgumentType::Void:
        break;
    }
    return std::nullopt;
}

/// "a, b, c"
template <class Range, class ToText>
std::string joinWithCommas(const Range& range, ToText toText) {
    std::string text;
    for (const auto& element : range) {
        if (!text.empty()) {
            text += ", ";
        }
        text += toText(element);
    }
    return text;
}

std::string listTypes(std::span<const KRValue> values) {
    return joinWithCommas(values,
                          [](const KRValue& value) { return std::string(getTypeName(value.getType())); });
}

KRValue toValue(const KRMethodDescription::Parameter& parameter, KRArgumentType type) {
    return KRValue::array(parameter.name, parameter.description, getTypeName(type));
}

/// As getLogRecords() describes it.
KRValue toValue(const KRLogExcerpt& excerpt) {
    std::vector<KRValue> records;
    records.reserve(excerpt.records.size());
    for (const KRLogRecord& each : excerpt.records) {
        const auto time_usec =
            std::chrono::duration_cast<std::chrono::microseconds>(each.time.time_since_epoch()).count();
        records.push_back(KRValue::array(static_cast<int>(each.level), each.category, each.message,
                                         each.thread, static_cast<int>(time_usec / 1'000'000),
                                         static_cast<int>(time_usec % 1'000'000)));
    }
    constexpr std::uint64_t kMost = std::numeric_limits<int>::max();
    return KRValue::array(excerpt.now, static_cast<int>(std::min(excerpt.lost, kMost)), std::move(records));
}

KRArgumentType toArgumentType(const KRValue& name) {
    constexpr std::array kTypes{KRArgumentType::Void,  KRArgumentType::Bool,   KRArgumentType::Int,
                                KRArgumentType::Float, KRArgumentType::String, KRArgumentType::Binary,
                                KRArgumentType::Array, KRArgumentType::Value};
    for (const KRArgumentType type : kTypes) {
        if (name.to<std::string>() == getTypeName(type)) {
            return type;
        }
    }
    throw KRError("KRProxy", "getMethodList", "unknown argument type " + name.to<std::string>());
}

} // namespace

KRValue toValue(const std::vector<KRMethodDescription>& methods) {
    std::vector<KRValue> list;
    list.reserve(methods.size());
    for (const KRMethodDescription& method : methods) {
        std::vector<KRValue> parameters;
        for (std::size_t i = 0; i < method.parameters.size(); ++i) {
            parameters.push_back(toValue(method.parameters[i], method.argumentTypes[i]));
        }
        list.push_back(KRValue::array(method.name, method.className, method.description,
                                      std::move(parameters), toValue(method.result, method.resultType)));
    }
    return list;
}

std::vector<KRMethodDescription> toMethodDescriptions(const KRValue& value) {
    std::vector<KRMethodDescription> methods;
    for (const KRValue& entry : value.to<std::vector<KRValue>>()) {
        KRMethodDescription method;
        method.name = entry[0].to<std::string>();
        method.className = entry[1].to<std::string>();
        method.description = entry[2].to<std::string>();
        for (const KRValue& parameter : entry[3].to<std::vector<KRValue>>()) {
            method.parameters.push_back({parameter[0].to<std::string>(), parameter[1].to<std::string>()});
            method.argumentTypes.push_back(toArgumentType(parameter[2]));
        }
        method.result = {entry[4][0].to<std::string>(), entry[4][1].to<std::string>()};
        method.resultType = toArgumentType(entry[4][2]);
        methods.push_back(std::move(method));
    }
    return methods;
}

std::string KRMethodDescription::getSignature() const {
    std::string text = name + "(";
    for (std::size_t i = 0; i < argumentTypes.size(); ++i) {
        text += i > 0 ? ", " : "";
        text += getTypeName(argumentTypes[i]);
        if (i < parameters.size() && !parameters[i].name.empty()) {
            text += " " + parameters[i].name;
        }
    }
    text += ")";
    if (resultType != KRArgumentType::Void) {
        text += std::string(": ") + getTypeName(resultType) + (result.name.empty() ? "" : " " + result.name);
    }
    return text;
}

KRModule::Private::Private(boost::shared_ptr<KRBroker> parentBroker, const std::string& moduleName,
                           KRModule& module)
    : name(moduleName), broker(std::move(parentBroker)),
      gate(broker ? getDirectory().reserve(name, module)
                  : throw KRError(name, "KRModule", "a module needs a broker")),
      parameters(name, [this](const std::string& parameter, const KRValue& value) {
          raiseParameterChanged(parameter, value);
      }) {}

KRDirectory& KRModule::Private::getDirectory() const {
    return KRBrokerPrivate::of(*broker).directory;
}

const KRModule::Private::Method* KRModule::Private::findMethod(std::string_view method,
                                                               std::span<const KRValue> arguments) const {
    const auto overloads = methodsByName.find(method);
    if (overloads == methodsByName.end()) {
        return nullptr;
    }
    const Method* best = nullptr;
    int bestSum = 0;
    for (const std::size_t index : overloads->second) {
        const Method& candidate = methods[index];
        const auto& types = candidate.description.argumentTypes;
        if (types.size() != arguments.size()) {
            continue;
        }
        int sum = 0;
        bool fits = true;
        for (std::size_t i = 0; fits && i < types.size(); ++i) {
            const auto worse = mismatch(types[i], arguments[i]);
            fits = worse.has_value();
            sum += worse.value_or(0);
        }
        if (fits && (best == nullptr || sum < bestSum)) {
            best = &candidate;
            bestSum = sum;
        }
    }
    return best;
}

KRValue KRModule::Private::call(std::string_view method, std::span<const KRValue> arguments) const {
    if (const Method* found = findMethod(method, arguments)) {
        return found->functor->getFunction().invoke(arguments);
    }
    const auto overloads = methodsByName.find(method);
    if (overloads != methodsByName.end()) {
        throw KRError(name, std::string(method),
                      "cannot be called with (" + listTypes(arguments) +
                          "); there is: " + getSignatures(overloads->second));
    }
    if (method == kGetMethodList && arguments.empty()) {
        return toValue(getMethodList());
    }
    if (method == kGetParameterList && arguments.empty()) {
        return std::vector<KRValue>();
    }
    if (method == kGetMethodHelp && arguments.size() == 1 && arguments[0].isString()) {
        return describeMethods(arguments[0].to<std::string>());
    }
    if (method == kGetFailure && arguments.empty()) {
        return getFailure();
    }
    if (method == kGetLogLevels && arguments.empty()) {
        return getLogLevels();
    }
    if (method == kSetLogLevels && arguments.size() == 1 && arguments[0].isString()) {
        const std::string levels = arguments[0].to<std::string>();
        try {
            setLogLevels(levels);
        } catch (const std::invalid_argument& error) {
            throw KRError(name, std::string(method), error.what());
        }
        logInfo("krplatform.module", name + " was asked to log " + levels);
        return {};
    }
    if (method == kGetLogRecords && arguments.size() == 1 && arguments[0].isString()) {
        return toValue(getLogRecords(arguments[0].to<std::string>()));
    }
    throw KRError(name, std::string(method), "no such method; " + suggestMethods(method));
}

std::string KRModule::Private::suggestMethods(std::string_view wanted) const {
    constexpr std::size_t kFew = 3;
    std::vector<std::string> names;
    for (const auto& [method, overloads] : methodsByName) {
        if (!method.starts_with("_")) { // internal
            names.push_back(method);
        }
    }
    if (names.empty()) {
        return "the module publishes none";
    }
    return (names.size() > kFew ? "the nearest names are " : "there is ") +
           joinWithCommas(findNearestNames(wanted, names, kFew),
                          [](const std::string& each) { return each; });
}

std::vector<KRMethodDescription> KRModule::Private::getMethodList() const {
    std::vector<KRMethodDescription> list;
    for (const Method& each : methods) {
        if (each.listed) {
            list.push_back(each.description);
        }
    }
    return list;
}

std::string KRModule::Private::getFailure() const {
    const KRLock lock(failureMutex);
    return failure;
}

std::string KRModule::Private::getSignatures(const std::vector<std::size_t>& indices) const {
    return joinWithCommas(indices,
                          [this](std::size_t index) { return methods[index].description.getSignature(); });
}

std::string KRModule::Private::describeMethods(std::string_view method) const {
    const auto overloads = methodsByName.find(method);
    if (overloads == methodsByName.end()) {
        throw KRError(name, std::string(kGetMethodHelp), "no method named " + std::string(method));
    }
    std::ostringstream text;
    for (const std::size_t index : overloads->second) {
        const KRMethodDescription& description = methods[index].description;
        text << description.getSignature() << '\n';
        if (!description.description.empty()) {
            text << "  " << description.description << '\n';
        }
        for (const auto& parameter : description.parameters) {
            text << "  " << parameter.name << ": " << parameter.description << '\n';
        }
        if (description.resultType != KRArgumentType::Void) {
            text << "  returns " << description.result.name << ": " << description.result.description << '\n';
        }
    }
    return text.str();
}

KRModule::KRModule(boost::shared_ptr<KRBroker> broker, const std::string& name)
    : p_(std::make_unique<Private>(std::move(broker), name, *this)) {}

KRModule::~KRModule() {
    p_->getDirectory().close(*p_->gate);
    p_->gate->waitForCalls();
    p_->getDirectory().withdraw(*p_->gate);
}

const std::string& KRModule::getName() const noexcept {
    return p_->name;
}

boost::shared_ptr<KRBroker> KRModule::getParentBroker() const {
    return p_->broker;
}

void KRModule::exit() {
    logVerbose("krplatform.module", p_->name + " was asked to exit");
    p_->getDirectory().close(*p_->gate);
}

bool KRModule::isExiting() const noexcept {
    return p_->gate->isClosed();
}

std::string KRModule::getFailure() const {
    return p_->getFailure();
}

void KRModule::reportFailure(const std::string& reason) {
    const KRLock lock(p_->failureMutex);
    p_->failure = reason;
}

void KRModule::makeReachable() {
    if (!p_->gate->wasOpened() && !p_->gate->isClosed()) {
        p_->parameters.setValues(KRBrokerPrivate::of(*p_->broker).getInitialParameters(p_->name));
    }
    p_->getDirectory().open(*p_->gate);
}

void KRModule::shutDown() {
    p_->getDirectory().close(*p_->gate);
    // Even if xShutDown() throws: the calls use the derived class, which may be destroyed next.
    const struct WaitAtEnd {
        const KRModuleGate& gate;
        ~WaitAtEnd() { gate.waitForCalls(); }
    } waitAtEnd{*p_->gate};
    xShutDown();
}

std::vector<KRMethodDescription> KRModule::getMethodList() const {
    return p_->getMethodList();
}

void KRModule::functionName(const std::string& method, const std::string& className,
                            const std::string& description, int) {
    p_->openDescription = {};
    p_->openDescription.name = method;
    p_->openDescription.className = className;
    p_->openDescription.description = description;
}

void KRModule::addParam(const std::string& name, const std::string& description) {
    p_->openDescription.parameters.push_back({name, description});
}

void KRModule::setReturn(const std::string& name, const std::string& description) {
    p_->openDescription.result = {name, description};
}

KRMethodDescription& KRModule::getCurrentMethodDescription() {
    return p_->openDescription;
}

void KRModule::bindMethodOverload(const boost::shared_ptr<KRFunctorBase>& functor) {
    publish(p_->openDescription, functor);
}

void KRModule::publish(const KRMethodDescription& description,
                       const boost::shared_ptr<KRFunctorBase>& functor) {
    const auto refuse = [&](const std::string& why) {
        throw KRError(p_->name, "publish", "method \"" + description.name + "\": " + why);
    };
    if (p_->gate->wasOpened()) {
        refuse("the module is reachable already, so nothing more can be published");
    }
    if (!functor || !functor->getFunction().invoke) {
        refuse("there is nothing to call");
    }
    const KRGenericFunction& function = functor->getFunction();
    if (function.arguments.size() != description.parameters.size()) {
        refuse("takes " + std::to_string(function.arguments.size()) + " arguments, but " +
               std::to_string(description.parameters.size()) + " parameters are described");
    }
    auto& overloads = p_->methodsByName[description.name];
    for (const std::size_t index : overloads) {
        if (p_->methods[index].description.argumentTypes == function.arguments) {
            refuse("is published already as " + p_->methods[index].description.getSignature());
        }
    }
    overloads.push_back(p_->methods.size());
    Private::Method method{description, functor};
    method.description.argumentTypes = function.arguments;
    method.description.resultType = function.result;
    p_->methods.push_back(std::move(method));
}

void KRModule::xPost(const std::string& what, std::function<void()> function) {
    KRBrokerPrivate::of(*p_->broker)
        .postCall(
            p_->gate, what, [function = std::move(function)](KRModuleGate::Running&) { function(); }, true);
}

std::string KRModule::xGetCaller() const {
    const KRIncomingCall* call = p_->gate->getIncomingCall();
    return call != nullptr ? call->caller : std::string();
}

bool KRModule::xIsCallerGone() const {
    const KRIncomingCall* call = p_->gate->getIncomingCall();
    return call != nullptr && call->isCallerGone();
}

void shutDownAndDestroy(std::unique_ptr<KRModule> module) noexcept {
    // Nothing here may fail, as there is no caller to report to.
    const auto takeDown = [](std::unique_ptr<KRModule> last) noexcept {
        try {
            last->shutDown();
        } catch (...) {
            logError("krplatform.module",
                     last->getName() + " did not shut down cleanly: " + describeCurrentException());
        }
    };
    const boost::shared_ptr<KRBroker> broker = module->getParentBroker();
    if (!module->p_->gate->isInsideCall()) {
        takeDown(std::move(module));
        return;
    }
    module->exit();
    KRModule* const leaving = module.release();
    try {
        KRBrokerPrivate::of(*broker).threads.post(
            [leaving, takeDown] { takeDown(std::unique_ptr<KRModule>(leaving)); });
    } catch (...) { // it cannot be destroyed here, inside its own call
        logError("krplatform.module", "an exiting module cannot be destroyed: out of threads or memory");
    }
}

} // namespace KR
