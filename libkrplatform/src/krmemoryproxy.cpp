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

void KRMemoryProxy::insertListData(const std::vector<std::pair<std::string, KRValue>>& list) {
    getLedger().insertListData(list);
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

std::vector<std::pair<std::string, KRValue>> KRMemoryProxy::getDataValues(const std::string& prefix) const {
    const auto list = proxy_.call<KRValue>("getDataValues", prefix);
    std::vector<std::pair<std::string, KRValue>> values;
    values.reserve(list.getSize());
    for (std::size_t i = 0; i < list.getSize(); ++i) {
        values.emplace_back(list[i][0].to<std::string>(), list[i][1]);
    }
    return values;
}

KRMemoryChanges KRMemoryProxy::getDataChanges(const std::string& prefix, const std::string& since,
                                              int maxBytes) const {
    const auto answer = proxy_.call<KRValue>("getDataChanges", prefix, since, maxBytes);
    const KRValue& list = answer[1];
    KRMemoryChanges changes{answer[0].to<std::string>(), {}};
    changes.changes.reserve(list.getSize());
    for (std::size_t i = 0; i < list.getSize(); ++i) {
        const auto bytes = list[i][2].to<int>();
        const auto written = list[i][3].to<int>() * std::int64_t{1000000} + list[i][4].to<int>();
        changes.changes.push_back(
            {list[i][0].to<std::string>(), list[i][1], bytes, bytes > maxBytes, written});
    }
    return changes;
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

void KRMemoryProxy::subscribeToWrites(const std::string& prefix, const std::string& client,
                                      const std::string& callback) {
    proxy_.call("subscribeToWrites", prefix, client, callback);
}

void KRMemoryProxy::unsubscribeFromWrites(const std::string& prefix, const std::string& client) {
    proxy_.call("unsubscribeFromWrites", prefix, client);
}

std::vector<std::string> KRMemoryProxy::getEventList() const {
    return proxy_.call<std::vector<std::string>>("getEventList");
}

KRValue KRMemoryProxy::getEventSubscribers(const std::string& event) const {
    return proxy_.call<KRValue>("getEventSubscribers", event);
}

} // namespace KR
