#include "krsenders.hpp"

#include <memory>

namespace KR {

std::string toText(const dds_guid_t& guid) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : guid.v) {
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

dds_guid_t toGuid(const std::string& text) {
    const auto toDigit = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
    dds_guid_t guid{};
    for (std::size_t i = 0; i < sizeof guid.v; ++i) {
        guid.v[i] = static_cast<std::uint8_t>(toDigit(text.at(2 * i)) << 4 | toDigit(text.at(2 * i + 1)));
    }
    return guid;
}

namespace {

using Endpoint = std::unique_ptr<dds_builtintopic_endpoint_t, void (*)(dds_builtintopic_endpoint_t*)>;

Endpoint getWriter(dds_entity_t reader, dds_instance_handle_t writer) {
    return {dds_get_matched_publication_data(reader, writer), dds_builtintopic_free_endpoint};
}

} // namespace

std::string KRSenders::readUserData(dds_entity_t reader, dds_instance_handle_t writer) {
    const Endpoint endpoint = getWriter(reader, writer);
    void* data = nullptr;
    std::size_t size = 0;
    if (!endpoint || !dds_qget_userdata(endpoint->qos, &data, &size)) {
        return {};
    }
    const std::unique_ptr<void, void (*)(void*)> owned(data, dds_free);
    return {static_cast<const char*>(data), size};
}

std::string KRSenders::find(dds_entity_t reader, dds_instance_handle_t writer) {
    {
        const KRLock lock(mutex_);
        const auto found = known_.find(writer);
        if (found != known_.end()) {
            return found->second;
        }
    }
    const Endpoint endpoint = getWriter(reader, writer);
    if (!endpoint) {
        return {};
    }
    std::string id = toText(endpoint->participant_key);
    const KRLock lock(mutex_);
    if (known_.size() >= kMaxKnown) {
        known_.clear(); // those still writing are looked up again
    }
    known_.emplace(writer, id);
    return id;
}

bool KRSenders::isFirstName(dds_instance_handle_t writer, const std::string& broker) {
    const KRLock lock(mutex_);
    if (firstNames_.size() >= kMaxKnown && !firstNames_.contains(writer)) {
        firstNames_.clear(); // those still writing start over
    }
    return firstNames_.emplace(writer, broker).first->second == broker;
}

} // namespace KR
