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
/// It is opened on a call thread, at the first call or earlier. When it ends, it is reopened: if nothing listens any more,
/// the other broker is gone, long before DDS notices.
class KRLocalRoute : public std::enable_shared_from_this<KRLocalRoute> {
public:
    /// What a route needs from its owner; the functions outlive the endpoint's stop() and all jobs.
    struct Owner {
        std::shared_ptr<KRLocalEndpoint> endpoint;
        std::function<bool(std::function<void()> job)> post; ///< \return whether a call thread runs it
        std::function<void(const std::string& broker)> onGone;
        std::function<void()> onSettled; ///< a connection is open, or has failed
    };

    KRLocalRoute(Owner owner, std::string broker, KRLocalAddress address)
        : owner_(std::move(owner)), broker_(std::move(broker)), address_(std::move(address)) {}

    /// Starts connecting, unless connected or connecting already.
    void connectLater() KR_EXCLUDES(mutex_);
    /// The connection; waits while the first one is being opened or one is being reopened. Null: use DDS
    std::shared_ptr<KRLocalConnection> get() KR_EXCLUDES(mutex_);
    /// After the end of a connection, waits until it is known whether the other is gone. \return whether it is
    bool isGoneAfterAll() KR_EXCLUDES(mutex_);
    /// Closes the connection permanently; pending calls fail.
    void close(const std::string& why) KR_EXCLUDES(mutex_);

    /// Whether it is open, or not being opened.
    bool isSettled() const KR_EXCLUDES(mutex_);
    bool isOpen() const KR_EXCLUDES(mutex_);
    /// Human-readable reason why it is not open; empty: not tried yet.
    std::string getProblem() const KR_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;
    enum class State {
        Idle,
        Connecting, // or checking whether the other still exists
        Retrying,   // the same, while calls use DDS
        Open,
        Failed, // calls use DDS
        Gone,
        Closed
    };

    bool isConnecting() const KR_REQUIRES(mutex_) {
        return state_ == State::Connecting || state_ == State::Retrying;
    }
    /// Connects on a call thread; the state is already Connecting or Retrying.
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
