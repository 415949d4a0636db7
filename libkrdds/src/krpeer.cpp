#include "krpeer.hpp"

#include "krserdata.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

namespace KR {

namespace {

/// Of this process, whichever broker calls: a number is never used again.
std::uint64_t drawSequence() noexcept {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

KRDDSEntity createWriter(dds_entity_t participant, dds_entity_t topic, const std::string& partition) {
    const std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)> qos(dds_create_qos(), dds_delete_qos);
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_INFINITY);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
    dds_qset_partition1(qos.get(), partition.c_str());
    const dds_entity_t writer = checkDDS(dds_create_writer(participant, topic, qos.get(), nullptr), "writer");
    checkDDS(dds_set_status_mask(writer, DDS_PUBLICATION_MATCHED_STATUS), "status mask");
    return KRDDSEntity(writer);
}

bool isRead(dds_entity_t writer) {
    dds_publication_matched_status_t status{};
    return dds_get_publication_matched_status(writer, &status) == DDS_RETCODE_OK && status.current_count > 0;
}

} // namespace

KRPeer::KRPeer(dds_entity_t participant, dds_entity_t requestTopic, dds_entity_t replyTopic, std::string own,
               std::string id, std::string whereabouts)
    : own_(std::move(own)), id_(std::move(id)), whereabouts_(std::move(whereabouts)),
      requests_(createWriter(participant, requestTopic, id_)),
      replies_(createWriter(participant, replyTopic, id_)) {}

bool KRPeer::lookForReaders() {
    const bool requests = isRead(requests_.get());
    const bool replies = isRead(replies_.get());
    const std::lock_guard lock(mutex_);
    readsRequests_ = readsRequests_ || requests;
    readsReplies_ = readsReplies_ || replies;
    readersChanged_.notify_all();
    return readsRequests_;
}

bool KRPeer::readsRequests() const {
    const std::lock_guard lock(mutex_);
    return readsRequests_ && gone_.empty();
}

void KRPeer::setGone(const std::string& why) {
    const std::lock_guard lock(mutex_);
    if (gone_.empty()) {
        gone_ = why;
    }
    readersChanged_.notify_all();
    for (const auto& [sequence, pending] : pending_) {
        pending->changed.notify_all();
    }
}

KRValue KRPeer::call(const std::string& module, std::string_view method, std::span<const KRValue> arguments) {
    const auto fail = [&](const std::string& why) { throw KRError(module, std::string(method), why); };
    KRRequest request{own_, drawSequence(), KRRequest::Call, module, std::string(method), {}};
    KRComposedBytes message = request.compose(std::vector<KRValue>(arguments.begin(), arguments.end()));
    Pending pending{std::chrono::steady_clock::now(), {}, {}};
    {
        const std::lock_guard lock(mutex_);
        if (!gone_.empty()) {
            fail(gone_);
        }
        pending_.emplace(request.sequence, &pending);
    }
    const dds_return_t written = writeMessage(requests_.get(), std::move(message));
    std::unique_lock lock(mutex_);
    if (written == DDS_RETCODE_OK) {
        pending.changed.wait(lock, [&] { return pending.reply || !gone_.empty(); });
    }
    pending_.erase(request.sequence);
    if (!pending.reply) {
        fail(!gone_.empty() ? gone_
                            : "the DDS engine refuses the call: " + std::string(dds_strretcode(written)));
    }
    lock.unlock();
    try {
        const KRValue value = pending.reply->value.decode();
        switch (pending.reply->status) {
        case KRReply::Result:
            return value;
        case KRReply::Error:
            throw KRError(value[0].to<std::string>(), value[1].to<std::string>(), value[2].to<std::string>());
        default:
            fail("the call or its answer was lost, the connection was interrupted");
        }
    } catch (const KRMalformed& error) {
        fail(std::string("the answer cannot be understood: ") + error.what());
    }
    return {};
}

void KRPeer::takeReply(KRReply reply) {
    const std::lock_guard lock(mutex_);
    const auto found = pending_.find(reply.sequence);
    if (found != pending_.end() && !found->second->reply) {
        found->second->reply = std::move(reply);
        found->second->changed.notify_all();
    }
}

bool KRPeer::hasCallsOlderThan(std::chrono::steady_clock::duration age) const {
    const std::lock_guard lock(mutex_);
    // Numbers grow with time, so the first is the oldest.
    return gone_.empty() && !pending_.empty() &&
           std::chrono::steady_clock::now() - pending_.begin()->second->since >= age;
}

bool KRPeer::inquire(std::chrono::steady_clock::duration age) {
    constexpr std::size_t kMost = 10000; // at a time; the oldest first
    std::vector<KRValue> sequences;
    {
        const auto now = std::chrono::steady_clock::now();
        const std::lock_guard lock(mutex_);
        for (const auto& [sequence, pending] : pending_) {
            if (now - pending->since < age || sequences.size() >= 2 * kMost) {
                break;
            }
            sequences.emplace_back(static_cast<std::int32_t>(sequence >> 32));
            sequences.emplace_back(static_cast<std::int32_t>(sequence & 0xffffffff));
        }
    }
    if (sequences.empty()) {
        return false;
    }
    const KRRequest request{own_, drawSequence(), KRRequest::Inquiry, "", "", {}};
    writeMessage(requests_.get(), request.compose(sequences));
    return true;
}

bool KRPeer::waitForReplyReader() {
    std::unique_lock lock(mutex_);
    readersChanged_.wait(lock, [&] { return readsReplies_ || !gone_.empty(); });
    return gone_.empty();
}

void KRPeer::reply(std::uint64_t sequence, KRReply::Status status, const KRValue& value) {
    const KRReply reply{own_, sequence, status, {}};
    writeMessage(replies_.get(), reply.compose(value));
}

} // namespace KR
