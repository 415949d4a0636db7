#pragma once

#include "krlocalway.hpp"
#include "krmessage.hpp"
#include "krmessagewriter.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace KR {

/// Another broker on the domain, and pending calls to it. Thread-safe.
///
/// It has its own writers, so that a broker that does not read blocks only its callers. They keep every message
/// until it is acknowledged, so no reply to a live broker is lost. They are created with the first call to or from that
/// broker.
class KRPeer {
public:
    /// What a peer needs to know about this process.
    struct Connection {
        dds_entity_t participant = 0;
        dds_entity_t requestTopic = 0;
        dds_entity_t replyTopic = 0;
        std::string id;                     ///< identity of this process's broker
        std::chrono::milliseconds patience; ///< how long to wait without any acknowledgement
        std::function<void()>
            onMatched; ///< called when a peer starts reading requests or replies, on a thread of the engine
        /// Called before a call over DDS to a peer with this identity, on the calling thread.
        std::function<void(const std::string& id)> onCallOverDDS;
        std::shared_ptr<std::atomic<int>> callsOverDDS; ///< under way, to all peers
    };

    /// \param process  announced by the broker \param reach  local route
    KRPeer(const Connection& connection, std::string id, std::string location, pid_t process,
           KRLocalWay::Reach reach);

    const std::string& getId() const noexcept { return id_; }
    const std::string& getLocation() const noexcept { return location_; }
    pid_t getProcess() const noexcept { return process_; }
    /// Null: calls use DDS.
    const std::shared_ptr<KRLocalRoute>& getRoute() const noexcept { return reach_.route; }
    /// Fills in how this broker is called.
    void describeWay(KRPeerDiagnostics& diagnostics) const;
    /// Whether calls have to wait until it reads requests.
    bool isConnecting() const {
        return (reach_.route && !reach_.route->isSettled()) || requests_.isWaitingForReader();
    }
    bool readsReplies() const noexcept { return replies_.isMatched(); }
    /// Requests openReplies(), unless already done. \return whether this is the first request
    bool wantReplies() noexcept { return !wantsReplies_.exchange(true); }
    bool wantsReplies() const noexcept { return wantsReplies_; }
    /// Prepares for answering its calls. \throws KRError the engine refuses
    void openReplies() { replies_.open(); }
    /// Prepares for calls to it, as the first call also does. \throws KRError the engine refuses
    void openRequests() { requests_.open(); }

    /// Fails all pending and future calls. `why` is human-readable.
    void setGone(const std::string& why) KR_EXCLUDES(mutex_);
    bool isGone() const KR_EXCLUDES(mutex_);
    /// Deletes the writers, which may take two seconds if the other acknowledges nothing. Call setGone() before.
    void close();

    /// Calls a method of the broker and waits for the answer. \throws KRError
    KRValue call(const std::string& module, std::string_view method, std::span<const KRValue> arguments)
        KR_EXCLUDES(mutex_);
    void takeReply(KRReply reply) KR_EXCLUDES(mutex_);
    /// Queries the other about calls pending for that long: a call unknown to it is lost. May block like a call.
    /// Call it after beginInquiry(); it ends the inquiry.
    void inquire(std::chrono::steady_clock::duration age) KR_EXCLUDES(mutex_);
    bool hasCallsOlderThan(std::chrono::steady_clock::duration age) const KR_EXCLUDES(mutex_);
    /// Begins an inquiry. \return false: one is in progress on another thread
    bool beginInquiry() noexcept { return !inquiring_.exchange(true); }
    void endInquiry() noexcept { inquiring_ = false; }

    /// Sends an answer to a call of the broker. Blocks while it is behind, within the connection's patience.
    /// \return whether it was sent, or the other is gone
    /// \throws KRError the value cannot be sent
    bool reply(std::uint64_t sequence, KRReply::Status status, const KRValue& value);

private:
    struct Pending {
        std::chrono::steady_clock::time_point since;
        KRCondition changed;
        std::optional<KRReply> reply;
    };

    KRValue callOverDDS(const std::string& module, std::string_view method,
                        std::span<const KRValue> arguments) KR_EXCLUDES(mutex_);
    KRValue callLocally(KRLocalConnection& connection, const std::string& module, std::string_view method,
                        std::span<const KRValue> arguments) KR_EXCLUDES(mutex_);
    /// Error text for a request that could not be sent.
    std::string describe(KRMessageWriter::Outcome outcome) const KR_REQUIRES(mutex_);

    const std::string own_;
    const std::string id_;
    const std::string location_;
    const pid_t process_;
    const KRLocalWay::Reach reach_;
    const std::chrono::milliseconds patience_;
    const std::function<void(const std::string& id)> onCallOverDDS_;
    const std::shared_ptr<std::atomic<int>> callsOverDDS_;
    KRMessageWriter requests_;
    KRMessageWriter replies_;
    std::atomic<bool> inquiring_ = false;
    std::atomic<bool> wantsReplies_ = false;

    mutable KRMutex mutex_;
    std::string gone_ KR_GUARDED_BY(mutex_); // the reason, once it is gone
    KRCondition goneChanged_;
    std::map<std::uint64_t, Pending*> pending_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
