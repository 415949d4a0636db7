#pragma once

#include "krlendings.hpp"
#include "krlocalclient.hpp"

#include "krlocal/krlocalendpoint.hpp"

#include <krplatform/krmutex.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KR {

/// A connection to another process: one socket, or several (lanes) while several threads call at once.
///
/// A call uses a lane that is free, so threads that call at once neither read for each other nor wake each other: each
/// alternates with one thread of the server. If no lane is free, the call shares the one with the fewest calls, and another
/// lane is opened for later calls.
class KRLocalLanes : public KRLocalConnection, public std::enable_shared_from_this<KRLocalLanes> {
public:
    static constexpr std::size_t kMaxLanes = 32;
    static constexpr std::chrono::seconds kIdleTime{2}; // unused lanes are closed after it, except the first
    static constexpr std::chrono::seconds kRetry{5};    // pause after a lane could not be opened

    struct Owner {
        /// Connects another socket. \return null: there is no room for it
        std::function<std::shared_ptr<KRLocalClient>(const std::shared_ptr<KRLocalLanes>&)> open;
        /// Runs a job on another thread. \throws std::exception no thread
        std::function<void(const std::function<void()>& job)> post;
        /// The connection has ended; called once.
        std::function<void(const std::string& why)> onGone;
    };

    explicit KRLocalLanes(Owner owner) : owner_(std::move(owner)) {}

    void add(std::shared_ptr<KRLocalClient> lane) KR_EXCLUDES(mutex_);
    const std::shared_ptr<KRLendings::Bytes>& getLentBytes() const noexcept { return lentBytes_; }

    KRLocalMessage call(const KRLocalMessage& request) override KR_EXCLUDES(mutex_);
    bool isOpen() const override KR_EXCLUDES(mutex_);
    void close(const std::string& why) override KR_EXCLUDES(mutex_);

    /// Closes without calling onGone.
    void closeSilently(const std::string& why) KR_EXCLUDES(mutex_);
    /// A lane has ended, so the connection has: new calls fail; calls under way in other lanes go on until those end.
    void noticeGone(const std::string& why) KR_EXCLUDES(mutex_);
    /// Closes lanes that have been idle for kIdleTime.
    void trim() KR_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;
    struct Lane {
        std::shared_ptr<KRLocalClient> client;
        std::size_t calls = 0; // under way
        Clock::time_point used;
    };

    std::shared_ptr<KRLocalClient> take() KR_EXCLUDES(mutex_);
    void giveBack(const KRLocalClient& client) noexcept KR_EXCLUDES(mutex_);
    void openAnother() noexcept KR_EXCLUDES(mutex_);
    bool setGone(const std::string& why) KR_EXCLUDES(mutex_);
    std::vector<std::shared_ptr<KRLocalClient>> list() const KR_EXCLUDES(mutex_);

    const Owner owner_;
    const std::shared_ptr<KRLendings::Bytes> lentBytes_ = std::make_shared<KRLendings::Bytes>(0);

    mutable KRMutex mutex_;
    std::vector<Lane> lanes_ KR_GUARDED_BY(mutex_);
    bool gone_ KR_GUARDED_BY(mutex_) = false;
    std::string why_ KR_GUARDED_BY(mutex_);
    bool opening_ KR_GUARDED_BY(mutex_) = false;
    Clock::time_point retry_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
