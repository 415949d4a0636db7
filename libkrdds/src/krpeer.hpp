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

/// Another broker on the domain, and the calls from here that it has not answered. Thread-safe.
///
/// It has its own writers, so that a broker that does not read blocks only its callers. They keep every message
/// until it is acknowledged: a reply is never lost to a broker that lives. They are made when the first call goes
/// there or comes from there.
class KRPeer {
public:
    /// What a peer needs to know of this process.
    struct Connection {
        dds_entity_t participant = 0;
        dds_entity_t requestTopic = 0;
        dds_entity_t replyTopic = 0;
        std::string id;                     ///< identity of this process's broker
        std::chrono::milliseconds patience; ///< how long the other may acknowledge nothing
        std::function<void()>
            onMatched; ///< a peer reads requests or replies now; runs on a thread of the engine
    };

    /// \param process  of the broker, as it has announced \param reach  the way on this machine
    KRPeer(const Connection& connection, std::string id, std::string location, pid_t process,
           KRLocalWay::Reach reach);

    const std::string& getId() const noexcept { return id_; }
    const std::string& getLocation() const noexcept { return location_; }
    pid_t getProcess() const noexcept { return process_; }
    /// Null: it is called over DDS.
    const std::shared_ptr<KRLocalRoute>& getRoute() const noexcept { return reach_.route; }
    /// Fills in how it is called.
    void describeWay(KRPeerDiagnostics& diagnostics) const;
    /// Whether calls to there wait until it reads them.
    bool isConnecting() const {
        return (reach_.route && !reach_.route->isSettled()) || requests_.isWaitingForReader();
    }
    bool readsReplies() const noexcept { return replies_.isMatched(); }
    /// Has openReplies() called soon, if it has not been. \return whether this is new
    bool wantReplies() noexcept { return !wantsReplies_.exchange(true); }
    bool wantsReplies() const noexcept { return wantsReplies_; }
    /// Prepares for answers to calls from there. \throws KRError the engine refuses
    void openReplies() { replies_.open(); }
    /// Prepares for calls to there, which the first one does as well. \throws KRError the engine refuses
    void openRequests() { requests_.open(); }

    /// Fails the calls under way, and all from now on. `why` is for people.
    void setGone(const std::string& why) KR_EXCLUDES(mutex_);
    bool isGone() const KR_EXCLUDES(mutex_);
    /// Deletes the writers, which may take two seconds if the other acknowledges nothing. Call setGone() before.
    void close();

    /// Calls a method there and waits for the answer. \throws KRError
    KRValue call(const std::string& module, std::string_view method, std::span<const KRValue> arguments)
        KR_EXCLUDES(mutex_);
    void takeReply(KRReply reply) KR_EXCLUDES(mutex_);
    /// Asks the other about calls that have been under way for that long: one that it does not know is lost.
    /// May block as a call does. Call it after beginInquiry(); it ends the inquiry.
    void inquire(std::chrono::steady_clock::duration age) KR_EXCLUDES(mutex_);
    bool hasCallsOlderThan(std::chrono::steady_clock::duration age) const KR_EXCLUDES(mutex_);
    /// For inquiries that are being made on another thread: \return whether this one may
    bool beginInquiry() noexcept { return !inquiring_.exchange(true); }
    void endInquiry() noexcept { inquiring_ = false; }

    /// Sends an answer to a call from there. Blocks while it is behind, within the connection's patience.
    /// \return whether it was sent, or the other is gone anyway
    /// \throws KRError the value cannot travel
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
    /// Why a call fails whose request could not be sent.
    std::string describe(KRMessageWriter::Outcome outcome) const KR_REQUIRES(mutex_);

    const std::string own_;
    const std::string id_;
    const std::string location_;
    const pid_t process_;
    const KRLocalWay::Reach reach_;
    const std::chrono::milliseconds patience_;
    KRMessageWriter requests_;
    KRMessageWriter replies_;
    std::atomic<bool> inquiring_ = false;
    std::atomic<bool> wantsReplies_ = false;

    mutable KRMutex mutex_;
    std::string gone_ KR_GUARDED_BY(mutex_); // why, once it is
    KRCondition goneChanged_;
    std::map<std::uint64_t, Pending*> pending_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
