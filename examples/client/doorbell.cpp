#include "doorbell.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <utility>

Doorbell::Doorbell(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, const std::string& event,
                   int pause_ms, Ring ring)
    : KRModule(broker, name), pause_(pause_ms), ring_(std::move(ring)), memory_(broker) {
    functionName("onEvent", "Doorbell", "Rings.");
    addParam("event", "Name of the event.");
    addParam("value", "Value of the event.");
    advertiseMethod(getCurrentMethodDescription(), this, &Doorbell::onEvent);
    functionName("onEventsLost", "Doorbell", "Logs that events were lost.");
    addParam("event", "Name of the event.");
    addParam("count", "Number of lost events.");
    advertiseMethod(getCurrentMethodDescription(), this, &Doorbell::onEventsLost);
    memory_.declareData(name + "/Rings", name);
    memory_.insertData(name + "/Rings", 0);
    memory_.subscribeToEvent(event, name, "onEvent");
}

void Doorbell::onEvent(const std::string& event, const KR::KRValue& value) {
    if (!isTimeToRing()) {
        return;
    }
    ring_(event, value);
    const KR::KRLock lock(mutex_);
    ++rings_;
    try {
        memory_.insertData(getName() + "/Rings", rings_);
    } catch (const KR::KRError& error) { // the bell also works without a memory module
        KR::logWarning("doorbell", getName() + " cannot write its rings: " + error.what());
    }
}

bool Doorbell::isTimeToRing() {
    const KR::KRClock::TimePoint now = getParentBroker()->getClock().now();
    const KR::KRLock lock(mutex_);
    if (last_ && now - *last_ < pause_) {
        return false;
    }
    last_ = now;
    return true;
}

void Doorbell::onEventsLost(const std::string& event, int count) {
    KR::logWarning("doorbell", getName() + " has lost " + std::to_string(count) + " events " + event);
}
