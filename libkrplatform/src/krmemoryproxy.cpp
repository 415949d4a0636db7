#include "krplatform/krmemoryproxy.hpp"

#include "krbroker_p.hpp"
#include "krmemory.hpp"
#include "krmemoryledger.hpp"

namespace KR {

KRMemoryProxy::KRMemoryProxy(const boost::shared_ptr<KRBroker>& broker)
    : broker_(broker), proxy_(broker, KRMemory::kName) {}

KRMemoryLedger& KRMemoryProxy::getLedger() const {
    return *KRBrokerPrivate::of(*broker_).ledger;
}

void KRMemoryProxy::insertData(const std::string& key, const KRValue& value) {
    getLedger().insertData(key, value);
}

KRValue KRMemoryProxy::getData(const std::string& key) const {
    return proxy_.call<KRValue>("getData", key);
}

std::int64_t KRMemoryProxy::getTimestamp(const std::string& key) const {
    const KRValue time = proxy_.call<KRValue>("getTimestamp", key);
    return time[0].to<int>() * std::int64_t{1000000} + time[1].to<int>();
}

std::vector<std::string> KRMemoryProxy::getDataList(const std::string& prefix) const {
    return proxy_.call<std::vector<std::string>>("getDataList", prefix);
}

void KRMemoryProxy::removeData(const std::string& key) {
    proxy_.call("removeData", key);
}

void KRMemoryProxy::declareData(const std::string& key, const std::string& module) noexcept {
    try {
        proxy_.call("declareData", key, module);
    } catch (...) { // nobody is warned
    }
}

void KRMemoryProxy::declareEvent(const std::string& event, const std::string& extractor) {
    getLedger().declareEvent(event, extractor);
}

void KRMemoryProxy::declareEvent(const std::string& event) {
    getLedger().declareEvent(event, "");
}

void KRMemoryProxy::raiseEvent(const std::string& event, const KRValue& value) {
    getLedger().raiseEvent(event, value);
}

void KRMemoryProxy::setEventLimits(int perSubscription, int inAll) {
    proxy_.call("setEventLimits", perSubscription, inAll);
}

void KRMemoryProxy::subscribeToEvent(const std::string& event, const std::string& client,
                                     const std::string& callback) {
    getLedger().subscribeToEvent(event, client, callback);
}

void KRMemoryProxy::unsubscribeFromEvent(const std::string& event, const std::string& client) {
    getLedger().unsubscribeFromEvent(event, client);
}

std::vector<std::string> KRMemoryProxy::getEventList() const {
    return proxy_.call<std::vector<std::string>>("getEventList");
}

KRValue KRMemoryProxy::getEventSubscribers(const std::string& event) const {
    return proxy_.call<KRValue>("getEventSubscribers", event);
}

} // namespace KR
