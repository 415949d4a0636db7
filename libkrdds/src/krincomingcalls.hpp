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

/// Calls from other brokers: those that wait, and those that run. Thread-safe; nothing here blocks but stop().
///
/// A call runs once its caller has been discovered (it may have discovered us first), reads replies, and has fewer
/// than kMaxRunning calls running here. Until then it waits, without a thread. Both are bounded per caller; what is
/// beyond the bounds is dropped and counted. Its caller asks about it and gets an error. The first call of a caller has
/// its peer want replies (KRPeer::wantReplies()).
class KRIncomingCalls : public std::enable_shared_from_this<KRIncomingCalls> {
public:
    static constexpr std::size_t kMaxRunning = 512;                          ///< calls of one caller
    static constexpr std::size_t kMaxRunningBytes = std::size_t{512} << 20;  ///< arguments of one caller
    static constexpr std::size_t kMaxWaiting = 16384;                        ///< calls of one caller
    static constexpr std::size_t kMaxWaitingBytes = std::size_t{64} << 20;   ///< arguments of one caller
    static constexpr std::size_t kMaxStrangers = 256;                        ///< callers not discovered yet
    static constexpr std::size_t kMaxStrangersCalls = 1024;                  ///< of all of them
    static constexpr std::size_t kMaxStrangersBytes = std::size_t{64} << 20; ///< of all of them
    static constexpr std::chrono::seconds kPatience{30}; ///< that long a call waits for its caller

    /// \param wake  has another thread call poll() soon; not called after stop()
    KRIncomingCalls(KRTransportHost& host, std::function<void()> wake)
        : host_(host), wake_(std::move(wake)) {}

    /// A request of kind Call has come. \throws KRMalformed its arguments are not understood
    void take(const KRRequest& request) KR_EXCLUDES(mutex_);
    /// Calls in the list that neither wait nor run.
    std::vector<std::uint64_t> findUnknown(const std::string& caller,
                                           const std::vector<std::uint64_t>& sequences) KR_EXCLUDES(mutex_);

    /// The caller has been discovered. Follow it by what its peer wants then, and poll().
    void setPeer(const std::shared_ptr<KRPeer>& peer) KR_EXCLUDES(mutex_);
    /// The caller is gone: drops its calls that wait.
    void removePeer(const std::string& id) KR_EXCLUDES(mutex_);
    /// Starts calls that need not wait any more, and drops those that have waited too long.
    void poll() KR_EXCLUDES(mutex_);

    /// Accepts no more calls, and waits for the answers to those that run, but no longer than `patience`.
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

    /// Why such a call of the caller cannot wait; empty if it can.
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
    std::map<std::string, Caller> callers_ KR_GUARDED_BY(mutex_); // by identity
};

} // namespace KR
