#include "krplatform/krmemoryproxy.hpp"

#include "krbroker_p.hpp"
#include "krmemory.hpp"
#include "krmemoryledger.hpp"

namespace KR {

KRMemoryProxy::KRMemoryProxy(const boost::shared_ptr<KRBroker>& broker)
    : broker_(broker), proxy_(broker, KRMemory::kName) {}

void KRMemoryProxy::insertData(const std::string& key, const KRValue& value) {
    proxy_.call("insertData", key, value);
}

KRValue KRMemoryProxy::getData(const std::string& key) const {
    return proxy_.call<KRValue>("getData", key);
}

std::vector<std::string> KRMemoryProxy::getDataList(const std::string& prefix) const {
    return proxy_.call<std::vector<std::string>>("getDataList", prefix);
}

void KRMemoryProxy::removeData(const std::string& key) {
    proxy_.call("removeData", key);
}

void KRMemoryProxy::declareEvent(const std::string& event, const std::string& extractor) {
    proxy_.call("declareEvent", event, extractor);
    if (KRMemoryLedger* ledger = KRBrokerPrivate::of(*broker_).ledger.get()) {
        ledger->noteDeclaration(event, extractor);
    }
}

void KRMemoryProxy::declareEvent(const std::string& event) {
    proxy_.call("declareEvent", event);
    if (KRMemoryLedger* ledger = KRBrokerPrivate::of(*broker_).ledger.get()) {
        ledger->noteDeclaration(event, "");
    }
}

void KRMemoryProxy::raiseEvent(const std::string& event, const KRValue& value) {
    proxy_.call("raiseEvent", event, value);
}

void KRMemoryProxy::subscribeToEvent(const std::string& event, const std::string& client,
                                     const std::string& callback) {
    proxy_.call("subscribeToEvent", event, client, callback);
    if (KRMemoryLedger* ledger = KRBrokerPrivate::of(*broker_).ledger.get()) {
        ledger->noteSubscription(event, client, callback);
    }
}

void KRMemoryProxy::unsubscribeFromEvent(const std::string& event, const std::string& client) {
    if (KRMemoryLedger* ledger = KRBrokerPrivate::of(*broker_).ledger.get()) {
        ledger->forgetSubscription(event, client); // also if the memory is gone and cannot be told
    }
    proxy_.call("unsubscribeFromEvent", event, client);
}

std::vector<std::string> KRMemoryProxy::getEventList() const {
    return proxy_.call<std::vector<std::string>>("getEventList");
}

KRValue KRMemoryProxy::getEventSubscribers(const std::string& event) const {
    return proxy_.call<KRValue>("getEventSubscribers", event);
}

} // namespace KR
