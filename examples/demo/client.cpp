#include "client.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krproxy.hpp>

Client::Client(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, const std::string& extractor)
    : KRModule(std::move(broker), name), extractor_(extractor) {
    functionName("onEvent", "Client", "Counts the events.");
    addParam("event", "Name of the event.");
    addParam("value", "Value of the event.");
    advertiseMethod(getCurrentMethodDescription(), this, &Client::onEvent);
}

void Client::subscribe(int period, float precision) {
    getParentBroker()->getProxy(extractor_)->call("subscribe", getName(), period, precision);
    subscribed_ = true;
}

void Client::subscribeToEvent(const std::string& event, int period, float precision) {
    KR::KRMemoryProxy(getParentBroker()).subscribeToEvent(event, getName(), "onEvent");
    event_ = event;
    subscribed_ = true;
    const auto extractor = getParentBroker()->getProxy(extractor_);
    extractor->call("updatePeriod", getName(), period);
    extractor->call("updatePrecision", getName(), precision);
}

void Client::updatePeriod(int period) {
    getParentBroker()->getProxy(extractor_)->call("updatePeriod", getName(), period);
}

void Client::unsubscribe() {
    if (!subscribed_) {
        return;
    }
    subscribed_ = false;
    if (event_.empty()) {
        getParentBroker()->getProxy(extractor_)->call("unsubscribe", getName());
    } else {
        KR::KRMemoryProxy(getParentBroker()).unsubscribeFromEvent(event_, getName());
    }
}

void Client::onEvent(const std::string& /*event*/, const KR::KRValue& /*value*/) {
    ++events_;
}
