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

/// The calling side of a connection's socket. Thread-safe.
///
/// One of the threads that wait for replies, the leader, reads. When its own reply arrives, it passes the lead to another
/// waiting thread. Without waiting threads, nobody reads.
class KRLocalClient {
public:
    KRLocalClient(std::unique_ptr<KRLocalChannel> channel,
                  std::shared_ptr<std::atomic<std::uint64_t>> disconnected,
                  std::function<void(const std::string& why)> onGone);

    /// See KRLocalConnection.
    KRLocalMessage call(const KRLocalMessage& request) KR_EXCLUDES(mutex_);
    /// Why it has ended; nullopt: it has not.
    std::optional<std::string> getEnd() const KR_EXCLUDES(mutex_);
    void close(const std::string& why) KR_EXCLUDES(mutex_);

    /// Closes without calling onGone.
    void closeSilently(const std::string& why) KR_EXCLUDES(mutex_);
    /// Reads while no thread waits: notices of shared memory, and the end of the connection.
    void poll() KR_EXCLUDES(mutex_);
    /// Periodic work: notices of shared memory in both directions. \return whether there will be more of it
    bool tick() KR_EXCLUDES(mutex_);
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
    bool reading_ KR_GUARDED_BY(mutex_) = false; // there is a leader
    bool gone_ KR_GUARDED_BY(mutex_) = false;
    std::string why_ KR_GUARDED_BY(mutex_);
    std::uint64_t lastNumber_ KR_GUARDED_BY(mutex_) = 0;
    std::map<std::uint64_t, Pending*> pending_ KR_GUARDED_BY(mutex_); // calls without a reply yet
    std::vector<Pending*> followers_ KR_GUARDED_BY(mutex_);           // waiting callers, in order of arrival
};

} // namespace KR
