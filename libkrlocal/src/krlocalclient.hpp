#pragma once

#include "krlocalchannel.hpp"

#include "krlocal/krlocalendpoint.hpp"

#include <krplatform/krmutex.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// The calling side of a connection.
///
/// Of the threads that wait for replies one reads, the leader: its own reply ends its lead, and it hands the lead to another
/// one that waits. While nobody waits nobody reads.
class KRLocalClient : public KRLocalConnection {
public:
    KRLocalClient(std::unique_ptr<KRLocalChannel> channel,
                  std::shared_ptr<std::atomic<std::uint64_t>> disconnected,
                  std::function<void(const std::string& why)> onGone);

    KRLocalMessage call(const KRLocalMessage& request) override KR_EXCLUDES(mutex_);
    bool isOpen() const override KR_EXCLUDES(mutex_);
    void close(const std::string& why) override KR_EXCLUDES(mutex_);

    /// Closes without calling onGone.
    void closeSilently(const std::string& why) KR_EXCLUDES(mutex_);
    /// Reads what has come while nobody waits: that the other has closed, and notices of shared memory.
    void poll() KR_EXCLUDES(mutex_);
    /// What is due from time to time: notices of shared memory, both ways.
    void tick() KR_EXCLUDES(mutex_);
    int getSocket() const noexcept { return channel_->getSocket(); }

private:
    struct Pending {
        KRCondition changed;
        std::optional<KRLocalMessage> reply;
        bool unanswered = false;
    };

    /// Reads one message; the caller has the lead. \return whether there was one
    bool readOne(bool wait) noexcept KR_EXCLUDES(mutex_);
    void dispatch(KRLocalChannel::Received received) KR_EXCLUDES(mutex_);
    void disconnect(const std::string& why) noexcept KR_EXCLUDES(mutex_);
    void giveLead() KR_REQUIRES(mutex_);
    void setGone(const std::string& why, bool tell) noexcept KR_EXCLUDES(mutex_);

    const std::unique_ptr<KRLocalChannel> channel_;
    const std::shared_ptr<std::atomic<std::uint64_t>> disconnected_;
    const std::function<void(const std::string& why)> onGone_;

    mutable KRMutex mutex_;
    bool reading_ KR_GUARDED_BY(mutex_) = false; // somebody has the lead
    bool gone_ KR_GUARDED_BY(mutex_) = false;
    std::string why_ KR_GUARDED_BY(mutex_);
    std::uint64_t lastNumber_ KR_GUARDED_BY(mutex_) = 0;
    std::map<std::uint64_t, Pending*> pending_ KR_GUARDED_BY(mutex_); // calls without a reply yet
    std::vector<Pending*> followers_ KR_GUARDED_BY(mutex_); // those that wait; the latest is the last
};

} // namespace KR
