#pragma once

#include "krlimitedlog.hpp"
#include "krmessage.hpp"
#include "krpeer.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krtransport.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace KR {

/// Calls from other brokers, waiting or running. Thread-safe; only stop() blocks.
///
/// A call runs once its caller has been discovered (it may have discovered us first), reads replies, and has fewer
/// than kMaxRunning calls running here. Until then it waits, without a thread. Both are limited per caller; calls
/// beyond the limits are dropped and counted, and their callers get an error when they inquire. The first call of a caller
/// calls KRPeer::wantReplies() of its peer.
class KRIncomingCalls : public std::enable_shared_from_this<KRIncomingCalls> {
public:
    static constexpr std::size_t kMaxRunning = 512;                          ///< calls of one caller
    static constexpr std::size_t kMaxRunningBytes = std::size_t{512} << 20;  ///< arguments of one caller
    static constexpr std::size_t kMaxWaiting = 16384;                        ///< calls of one caller
    static constexpr std::size_t kMaxWaitingBytes = std::size_t{64} << 20;   ///< arguments of one caller
    static constexpr std::size_t kMaxStrangers = 256;                        ///< callers not discovered yet
    static constexpr std::size_t kMaxStrangersCalls = 1024;                  ///< of all of them
    static constexpr std::size_t kMaxStrangersBytes = std::size_t{64} << 20; ///< of all of them
    static constexpr std::chrono::seconds kPatience{30}; ///< how long a call waits for its caller

    /// \param wake  has another thread call poll() soon; not called after stop()
    KRIncomingCalls(KRTransportHost& host, std::function<void()> wake)
        : host_(host), wake_(std::move(wake)) {}

    /// Handles a received request of kind Call. \throws KRMalformed invalid arguments
    void take(const KRRequest& request) KR_EXCLUDES(mutex_);
    /// Calls of the list that are neither waiting nor running.
    std::vector<std::uint64_t> findUnknown(const std::string& caller,
                                           const std::vector<std::uint64_t>& sequences) KR_EXCLUDES(mutex_);

    /// The caller has been discovered. Then do what its peer wants, and call poll().
    void setPeer(const std::shared_ptr<KRPeer>& peer) KR_EXCLUDES(mutex_);
    /// The caller is gone: drops its waiting calls.
    void removePeer(const std::string& id) KR_EXCLUDES(mutex_);
    /// Starts calls that are ready, and drops those that have waited too long.
    void poll() KR_EXCLUDES(mutex_);

    /// Accepts no more calls, and waits for the answers of running ones, for at most `patience`.
    void stop(std::chrono::milliseconds patience) KR_EXCLUDES(mutex_);

    std::uint64_t getRefusedCount() const noexcept { return refused_; }

private:
    class Served;
    struct Waiting {
        KRRequest request;
        std::vector<KRValue> arguments;
        std::size_t bytes = 0;
        std::chrono::steady_clock::time_point since;
    };
    struct Caller {
        std::shared_ptr<KRPeer> peer;             // null: not discovered yet
        std::map<std::uint64_t, Waiting> waiting; // by number of the call, which is the order of the calls
        std::size_t waitingBytes = 0;
        std::map<std::uint64_t, std::size_t> running; // bytes by number of the call
        std::size_t runningBytes = 0;

        bool mayRun(std::size_t bytes) const;
        bool knows(std::uint64_t sequence) const {
            return waiting.contains(sequence) || running.contains(sequence);
        }
        bool isIdle() const { return !peer && waiting.empty() && running.empty(); }
    };
    struct Ready {
        std::shared_ptr<KRPeer> peer;
        Waiting call;
    };

    /// Why such a call of the caller cannot be queued; empty if it can.
    std::string findProblem(const Caller& caller, std::size_t bytes) const KR_REQUIRES(mutex_);
    void serve(Ready ready);
    void finish(const std::string& id, std::uint64_t sequence) noexcept KR_EXCLUDES(mutex_);

    KRTransportHost& host_; // not used after stop()
    const std::function<void()> wake_;
    KRLimitedLog refusals_{"krdds", "calls that were refused"};
    std::atomic<std::uint64_t> refused_ = 0;

    KRMutex mutex_;
    KRCondition finished_;
    bool stopped_ KR_GUARDED_BY(mutex_) = false;
    std::size_t waiting_ KR_GUARDED_BY(mutex_) = 0;               // calls of all callers
    std::map<std::string, Caller> callers_ KR_GUARDED_BY(mutex_); // by identity
};

} // namespace KR
