#include "krextractor/krextractor.hpp"

#include "krplatform/krlog.hpp"

#include "krextractor_p.hpp"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>

namespace KR {

namespace {

constexpr const char* kCategory = "core.extractor";
constexpr const char* kClassName = "KRExtractor";

// The method field holds the explanation and the description the subscriber: deliberate.
[[noreturn]] void throwUnknownModule(const char* explanation, const std::string& subscriber,
                                     KRSourceLocation where = KRSourceLocation::current()) {
    throw KRError(kClassName, explanation, subscriber, where);
}

constexpr const char* kUpdateUnknown = "updateParam: unknown module name: ";

} // namespace

KRExtractorPrivate::KRExtractorPrivate(const boost::shared_ptr<KRBroker>& broker,
                                       const std::string& moduleName)
    : name(moduleName) {
    broker->getSession().waitForService("KRMemory");
    memoryProxy = boost::make_shared<KRMemoryProxy>(broker);
}

KRExtractor::KRExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name)
    : KRModule(broker, name), p_(new KRExtractorPrivate(broker, name)) {
    publishMethods();
}

KRExtractor::~KRExtractor() = default;

// Published verbatim, including differences of case and the repetitions in the last two: deliberate.
void KRExtractor::publishMethods() {
    static const std::string subscribeDescription =
        "Subscribes to the extractor. This causes the extractor to start writing information to memory using "
        "the keys described by getOutputNames(). These can be accessed in memory using "
        "KRMemory.getData(\"keyName\"). In many cases you can avoid calling subscribe on the extractor by "
        "just calling "
        "KRMemory.subscribeToEvent() supplying a callback method. This will automatically subscribe to the "
        "extractor for you.";
    const auto advertise = [this](auto member) {
        advertiseMethod(getCurrentMethodDescription(), this, member);
    };

    functionName("subscribe", kClassName, subscribeDescription, 0);
    addParam("name", "Name of the module which subscribes.");
    addParam("period", "Refresh period (in milliseconds) if relevant.");
    addParam("precision", "Precision of the extractor if relevant.");
    bindMethodOverload(
        createFunctor(this, static_cast<void (KRExtractor::*)(const std::string&, const int&, const float&)>(
                                &KRExtractor::subscribe)));

    functionName("subscribe", kClassName, subscribeDescription, 0);
    addParam("name", "Name of the module which subscribes.");
    bindMethodOverload(
        createFunctor(this, static_cast<void (KRExtractor::*)(const std::string&)>(&KRExtractor::subscribe)));

    functionName("unsubscribe", kClassName, "Unsubscribes from the extractor.", 0);
    addParam("name", "Name of the module which had subscribed.");
    advertise(&KRExtractor::unsubscribe);

    functionName("updatePeriod", kClassName, "Updates the period if relevant.", 0);
    addParam("name", "Name of the module which has subscribed.");
    addParam("period", "Refresh period (in milliseconds).");
    advertise(&KRExtractor::updatePeriod);

    functionName("updatePrecision", kClassName, "Updates the precision if relevant.", 0);
    addParam("name", "Name of the module which has subscribed.");
    addParam("precision", "Precision of the extractor.");
    advertise(&KRExtractor::updatePrecision);

    functionName("getCurrentPeriod", kClassName, "Gets the current period.", 0);
    setReturn("period", "Refresh period (in milliseconds).");
    advertise(&KRExtractor::getCurrentPeriod);

    functionName("getCurrentPrecision", kClassName, "Gets the current precision.", 0);
    setReturn("precision", "Precision of the extractor.");
    advertise(&KRExtractor::getCurrentPrecision);

    functionName("getMyPeriod", kClassName, "Gets the period for a specific subscription.", 0);
    addParam("name", "Name of the module which has subscribed.");
    setReturn("period", "Refresh period (in milliseconds).");
    advertise(&KRExtractor::getMyPeriod);

    functionName("getMyPrecision", kClassName, "Gets the precision for a specific subscription.", 0);
    addParam("name", "name of the module which has subscribed");
    setReturn("precision", "precision of the extractor");
    advertise(&KRExtractor::getMyPrecision);

    functionName("getSubscribersInfo", kClassName, "Gets the parameters given by the module.", 0);
    setReturn("subscribersInfo", "Array of names and parameters of all subscribers.");
    advertise(&KRExtractor::getSubscribersInfo);

    functionName("getOutputNames", kClassName, "Get the list of values updated in KRMemory.", 0);
    setReturn("outputNames", "Array of values updated by this extractor in KRMemory");
    advertise(&KRExtractor::getOutputNames);

    functionName("getEventList", kClassName, "Get the list of events updated in KRMemory.", 0);
    setReturn("outputNames", "Array of events updated by this extractor in KRMemory");
    advertise(&KRExtractor::getEventList);

    functionName("getMemoryKeyList", kClassName, "Get the list of events updated in KRMemory.", 0);
    setReturn("outputNames", "Array of events updated by this extractor in KRMemory");
    advertise(&KRExtractor::getMemoryKeyList);
}

int KRExtractor::clampPeriod(int period, KRSourceLocation where) {
    // The warnings name the extractor, not the subscriber, and say "subscribe" for updates too: deliberate.
    const int minimum = getMinimumPeriod();
    if (period < minimum) {
        logWarning(kCategory,
                   getName() + " requested period is too small; subscribe with period = " +
                       std::to_string(minimum) + " ms.",
                   where);
        period = minimum;
    }
    const int maximum = getMaximumPeriod();
    if (maximum >= 0 && period > maximum) {
        logWarning(kCategory,
                   getName() + " requested period is too big; subscribe with period = " +
                       std::to_string(maximum) + " ms.",
                   where);
        period = maximum;
    }
    return period;
}

void KRExtractor::subscribe(const std::string& name, const int& period, const float& precision) {
    const KRLock subscribeLock(subscribeMutex_);
    if (shuttingDown_) {
        throw KRError(getName(), "subscribe", "the module is exiting");
    }
    const KRExtractorParameters parameters{clampPeriod(period, KRSourceLocation::current()), precision};
    bool first = false;
    bool known = false;
    {
        const KRExclusiveLock stateLock(p_->stateMutex);
        first = p_->subscribers.empty();
        known = !p_->subscribers.insert_or_assign(name, parameters).second;
        if (first) {
            p_->currentPeriod = parameters.period;
            p_->currentPrecision = precision;
        }
    }
    if (first) {
        xStartDetection(parameters.period, precision);
        reportChangesSince(parameters.period, precision);
        return;
    }
    if (known) {
        logWarning(kCategory,
                   getName() + " the module is already subscribed: will just update the parameters.");
    }
    xUpdateParameters();
    logVerbose(kCategory, getName() + " received subscribe from " + name);
}

void KRExtractor::subscribe(const std::string& name) {
    bool detecting = false;
    {
        const KRSharedLock stateLock(p_->stateMutex);
        detecting = !p_->subscribers.empty();
    }
    // The answer may be out of date by now; that is accepted.
    if (detecting) {
        subscribe(name, getCurrentPeriod(), getCurrentPrecision());
    } else {
        subscribe(name, getDefaultPeriod(), getDefaultPrecision());
    }
}

void KRExtractor::unsubscribe(const std::string& name) {
    const KRLock subscribeLock(subscribeMutex_);
    bool known = false;
    bool last = false;
    {
        const KRExclusiveLock stateLock(p_->stateMutex);
        known = p_->subscribers.erase(name) > 0;
        last = known && p_->subscribers.empty();
        if (last) {
            p_->currentPeriod = -1;
            p_->currentPrecision = -1.0F;
        }
    }
    if (!known) {
        logWarning(kCategory, getName() + " received unsubscribe from non-subscribed module " + name + "\n");
        throwUnknownModule("received unsubscribe from non-subscribed module: ", name);
    }
    if (last) {
        xStopDetection();
    } else {
        xUpdateParameters();
    }
    logVerbose(kCategory, getName() + " received unsubscribe from " + name);
}

void KRExtractor::updatePeriod(const std::string& name, const int& period) {
    {
        const KRSharedLock stateLock(p_->stateMutex);
        if (!p_->subscribers.contains(name)) {
            throwUnknownModule(kUpdateUnknown, name);
        }
    }
    // Without the lock: this calls the derived class.
    const int clamped = clampPeriod(period, KRSourceLocation::current());
    {
        const KRExclusiveLock stateLock(p_->stateMutex);
        const auto found = p_->subscribers.find(name);
        if (found == p_->subscribers.end()) {
            throwUnknownModule(kUpdateUnknown, name);
        }
        found->second.period = clamped;
    }
    xUpdateParameters();
}

void KRExtractor::updatePrecision(const std::string& name, const float& precision) {
    {
        const KRExclusiveLock stateLock(p_->stateMutex);
        const auto found = p_->subscribers.find(name);
        if (found == p_->subscribers.end()) {
            throwUnknownModule(kUpdateUnknown, name);
        }
        found->second.precision = precision;
    }
    xUpdateParameters();
}

int KRExtractor::getCurrentPeriod() {
    const KRSharedLock stateLock(p_->stateMutex);
    return p_->currentPeriod;
}

float KRExtractor::getCurrentPrecision() {
    const KRSharedLock stateLock(p_->stateMutex);
    return p_->currentPrecision;
}

int KRExtractor::getMyPeriod(const std::string& name) {
    const KRSharedLock stateLock(p_->stateMutex);
    const auto found = p_->subscribers.find(name);
    if (found == p_->subscribers.end()) {
        throwUnknownModule("getMyPeriod: unknown module name: ", name);
    }
    return found->second.period;
}

float KRExtractor::getMyPrecision(const std::string& name) {
    const KRSharedLock stateLock(p_->stateMutex);
    const auto found = p_->subscribers.find(name);
    if (found == p_->subscribers.end()) {
        throwUnknownModule("getMyPrecision: unknown module name: ", name);
    }
    return found->second.precision;
}

void KRExtractor::xUpdateParameters(int /*period*/, float /*precision*/) {}

int KRExtractor::getDefaultPeriod() {
    return 30;
}

float KRExtractor::getDefaultPrecision() {
    return 0.0F;
}

int KRExtractor::getMinimumPeriod() {
    return 1;
}

int KRExtractor::getMaximumPeriod() {
    return -1;
}

void KRExtractor::xUpdateParameters() {
    int period = std::numeric_limits<int>::max();
    float precision = -std::numeric_limits<float>::infinity();
    {
        const KRExclusiveLock stateLock(p_->stateMutex);
        if (p_->subscribers.empty()) {
            throw KRError(getName(), "xUpdateParameters", "no module subscribed");
        }
        for (const auto& [name, parameters] : p_->subscribers) {
            period = std::min(period, parameters.period);
            precision = std::max(precision, parameters.precision);
        }
        p_->currentPeriod = period;
        p_->currentPrecision = precision;
    }
    xUpdateParameters(period, precision);
    reportChangesSince(period, precision);
}

// Hooks run without a lock, so one with older values may finish last: its caller checks for newer ones
// afterwards.
void KRExtractor::reportChangesSince(int period, float precision) {
    for (;;) {
        {
            const KRSharedLock stateLock(p_->stateMutex);
            const bool isCurrent = p_->currentPeriod == period &&
                                   std::bit_cast<std::uint32_t>(p_->currentPrecision) ==
                                       std::bit_cast<std::uint32_t>(precision); // NaN equals itself
            if (isCurrent || p_->subscribers.empty()) {
                return;
            }
            period = p_->currentPeriod;
            precision = p_->currentPrecision;
        }
        xUpdateParameters(period, precision);
    }
}

KRValue KRExtractor::getSubscribersInfo() {
    std::vector<KRValue> table;
    const KRSharedLock stateLock(p_->stateMutex);
    table.reserve(p_->subscribers.size());
    for (const auto& [name, parameters] : p_->subscribers) {
        table.push_back(KRValue::array(name, parameters.period, parameters.precision));
    }
    return table;
}

std::vector<std::string> KRExtractor::getEventList() {
    return p_->eventList;
}

std::vector<std::string> KRExtractor::getMemoryKeyList() {
    return p_->memoryKeyList;
}

std::vector<std::string> KRExtractor::getOutputNames() {
    std::vector<std::string> names = p_->eventList;
    names.insert(names.end(), p_->memoryKeyList.begin(), p_->memoryKeyList.end());
    return names;
}

void KRExtractor::declareEvent(const std::string& name) {
    p_->eventList.push_back(name);
    p_->memoryProxy->declareEvent(name, p_->name);
}

void KRExtractor::declareMemoryKey(const std::string& name) {
    p_->memoryKeyList.push_back(name);
    KRValue empty;
    empty.arraySetSize(0);
    p_->memoryProxy->insertData(name, empty);
    p_->memoryProxy->declareData(name, p_->name);
}

void KRExtractor::xShutDown() {
    const KRLock subscribeLock(subscribeMutex_);
    shuttingDown_ = true;
    {
        const KRExclusiveLock stateLock(p_->stateMutex);
        if (p_->subscribers.empty()) {
            return;
        }
        p_->subscribers.clear();
        p_->currentPeriod = -1;
        p_->currentPrecision = -1.0F;
    }
    xStopDetection();
}

} // namespace KR
