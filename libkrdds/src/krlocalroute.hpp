#pragma once

#include <krlocal/krlocalendpoint.hpp>
#include <krplatform/krmutex.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace KR {

/// The connection to another broker on this machine, which calls take instead of DDS while it is open. Thread-safe.
///
/// It is made on a call thread, at the first call or before. When it ends it is made anew: if nobody listens any more the
/// other broker is gone, long before DDS notices.
class KRLocalRoute : public std::enable_shared_from_this<KRLocalRoute> {
public:
    /// What a route needs of its owner; the functions outlive the endpoint's stop() and all jobs.
    struct Owner {
        std::shared_ptr<KRLocalEndpoint> endpoint;
        std::function<bool(std::function<void()> job)> post; ///< \return whether a call thread runs it
        std::function<void(const std::string& broker)> onGone;
        std::function<void()> onSettled; ///< a connection is made, or cannot be
    };

    KRLocalRoute(Owner owner, std::string broker, KRLocalAddress address)
        : owner_(std::move(owner)), broker_(std::move(broker)), address_(std::move(address)) {}

    /// Makes the connection soon, unless that is under way or done.
    void connectLater() KR_EXCLUDES(mutex_);
    /// The connection; waits while the first one is being made, or one anew. Null: take DDS
    std::shared_ptr<KRLocalConnection> get() KR_EXCLUDES(mutex_);
    /// Waits until it is known whether the other is gone, after a connection has ended. \return whether it is
    bool isGoneAfterAll() KR_EXCLUDES(mutex_);
    /// Ends the connection, for good; calls under way fail.
    void close(const std::string& why) KR_EXCLUDES(mutex_);

    /// Whether it is open, or nothing tries to open it.
    bool isSettled() const KR_EXCLUDES(mutex_);
    bool isOpen() const KR_EXCLUDES(mutex_);
    /// Why it is not open, for people; empty: nothing has tried yet.
    std::string getProblem() const KR_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;
    enum class State {
        Idle,
        Connecting, // or asking whether the other is still there
        Retrying,   // the same, while calls take DDS
        Open,
        Failed, // calls take DDS
        Gone,
        Closed
    };

    bool isConnecting() const KR_REQUIRES(mutex_) {
        return state_ == State::Connecting || state_ == State::Retrying;
    }
    /// Connects on a call thread; the state says that already.
    void postConnect() KR_EXCLUDES(mutex_);
    void connect() KR_EXCLUDES(mutex_);
    void settle(State state, const std::string& problem) KR_EXCLUDES(mutex_);
    void noticeEnd() KR_EXCLUDES(mutex_);

    const Owner owner_;
    const std::string broker_;
    const KRLocalAddress address_;

    mutable KRMutex mutex_;
    KRCondition changed_;
    State state_ KR_GUARDED_BY(mutex_) = State::Idle;
    std::shared_ptr<KRLocalConnection> connection_ KR_GUARDED_BY(mutex_);
    std::string problem_ KR_GUARDED_BY(mutex_);
    Clock::time_point retry_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
