#pragma once

#include "krddsdomain.hpp"
#include "krmessage.hpp"

#include <krplatform/krvalue.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace KR {

/// Another broker on the domain, and what is under way with it. Thread-safe.
///
/// It has writers of its own, so that one that does not read holds up only those who call it. They keep everything
/// until it is acknowledged: a reply is never lost to a broker that lives.
class KRPeer {
public:
    /// \param own  identity of the broker that calls
    KRPeer(dds_entity_t participant, dds_entity_t requestTopic, dds_entity_t replyTopic, std::string own,
           std::string id, std::string whereabouts);

    const std::string& getId() const noexcept { return id_; }
    const std::string& getWhereabouts() const noexcept { return whereabouts_; }
    dds_entity_t getRequestWriter() const noexcept { return requests_.get(); }
    dds_entity_t getReplyWriter() const noexcept { return replies_.get(); }

    /// Asks the engine whether the other reads already. \return whether it reads requests
    bool lookForReaders();
    bool readsRequests() const;
    /// It is gone: fails what is under way, now and from now on. `why` is for people.
    void setGone(const std::string& why);

    /// Calls a method there and waits for the answer. \throws KRError
    KRValue call(const std::string& module, std::string_view method, std::span<const KRValue> arguments);
    void takeReply(KRReply reply);
    /// Asks the other about calls that have been under way for that long: one that it does not know is lost.
    /// May block as a call does. \return whether there were any
    bool inquire(std::chrono::steady_clock::duration age);
    bool hasCallsOlderThan(std::chrono::steady_clock::duration age) const;
    /// For inquiries that are being made on another thread: \return whether this one may
    bool beginInquiry() noexcept { return !inquiring_.exchange(true); }
    void endInquiry() noexcept { inquiring_ = false; }

    /// Blocks until the other reads replies or is gone. \return whether it reads them
    bool waitForReplyReader();
    /// Sends an answer to a call from there. May block while it is behind.
    /// \throws KRError the value cannot travel
    void reply(std::uint64_t sequence, KRReply::Status status, const KRValue& value);

private:
    struct Pending {
        std::chrono::steady_clock::time_point since;
        std::condition_variable changed;
        std::optional<KRReply> reply;
    };

    const std::string own_;
    const std::string id_;
    const std::string whereabouts_;
    KRDDSEntity requests_;
    KRDDSEntity replies_;
    std::atomic<bool> inquiring_ = false;

    mutable std::mutex mutex_;
    std::condition_variable readersChanged_;
    // Guarded by mutex_.
    bool readsRequests_ = false;
    bool readsReplies_ = false;
    std::string gone_; // why, once it is
    std::map<std::uint64_t, Pending*> pending_;
};

} // namespace KR
