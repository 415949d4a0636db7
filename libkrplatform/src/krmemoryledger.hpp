#pragma once

#include "krplatform/krmutex.hpp"
#include "krplatform/krproxy.hpp"

#include "krmemorybacklog.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace KR {

/// Writes to the memory module on behalf of the modules of this process, and survives its restarts.
///
/// Declarations and subscriptions are stored, and repeated to each new memory module. While there is none, values and raised
/// events are also stored, up to a limit, and delivered once one is back. Before the first memory module has been seen,
/// operations fail. Thread-safe.
class KRMemoryLedger {
public:
    /// \param post  runs a job on a call thread; may throw
    KRMemoryLedger(boost::shared_ptr<KRBroker> broker, std::function<void(std::function<void()>)> post);

    /// The operations of KRMemoryProxy with these names; they pass on errors of the memory module.
    void insertData(const std::string& key, const KRValue& value);
    void insertListData(const std::vector<std::pair<std::string, KRValue>>& list);
    void raiseEvent(const std::string& event, const KRValue& value);
    void declareEvent(const std::string& event, const std::string& extractor);
    void subscribeToEvent(const std::string& event, const std::string& client, const std::string& callback);
    void unsubscribeFromEvent(const std::string& event, const std::string& client);

    /// A module became reachable or unreachable. Does not block or throw.
    void noticeModule(const std::string& module, bool reachable) noexcept KR_EXCLUDES(mutex_);
    /// Stops waiting for a memory module, and ends the delivery soon.
    void stop() noexcept KR_EXCLUDES(mutex_);

private:
    using Declarations = std::map<std::string, std::string>; // extractor by event
    using Subscriptions =
        std::map<std::pair<std::string, std::string>, std::string>; // callback by event, client
    enum class Outcome { Done, Away, Skipped };

    /// Calls the memory module. \return Away: there is none; Skipped: it was already known to be away, so nothing was called
    template <class... A>
    Outcome callIfThere(const char* method, const A&... arguments) const;
    /// Whether the error means that the memory module with this number is gone.
    bool isAbsence(std::uint32_t memory, const KRError& error) const;
    void write(const char* method, KRMemoryBacklog::Kind kind, const std::string& name, const KRValue& value);
    void noteChange() KR_REQUIRES(mutex_);
    /// Called after a declaration or subscription.
    void finish(Outcome outcome) KR_EXCLUDES(mutex_);
    void goAway() KR_REQUIRES(mutex_);
    void startHandOver() KR_REQUIRES(mutex_);
    /// Runs on a call thread until the memory module has everything, or is gone.
    void handOver() KR_EXCLUDES(mutex_);
    /// Repeats declarations and subscriptions to the memory module of this number.
    void repeat(std::uint32_t memory) KR_EXCLUDES(mutex_);
    bool repeatAll(const Declarations& declarations, const Subscriptions& subscriptions, bool last) const;
    void handOverBacklog() KR_EXCLUDES(mutex_);
    void reportBack() KR_REQUIRES(mutex_);
    /// \return false: stopped meanwhile
    bool pause(std::chrono::milliseconds time) KR_EXCLUDES(mutex_);

    const KRProxy memory_;
    const std::function<void(std::function<void()>)> post_;
    std::atomic<bool> seen_ = false; // there has been a memory module
    std::atomic<bool> used_ = false; // and it was written to
    std::atomic<bool> away_ =
        false; // it is not there, or does not have the backlog yet; set with mutex_ held

    KRMutex mutex_;
    KRCondition stopped_;
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
    bool handingOver_ KR_GUARDED_BY(mutex_) = false;
    std::uint32_t told_ KR_GUARDED_BY(mutex_) = 0; // number of the memory module that knows the next two
    Declarations declarations_ KR_GUARDED_BY(mutex_);
    Subscriptions subscriptions_ KR_GUARDED_BY(mutex_);
    std::uint64_t changes_ KR_GUARDED_BY(mutex_) = 0; // of these two so far
    KRMemoryBacklog backlog_ KR_GUARDED_BY(mutex_);
    KRMemoryBacklog::Counts handedOver_ KR_GUARDED_BY(mutex_); // since the memory module went away
    std::size_t lost_ KR_GUARDED_BY(mutex_) = 0;               // the same
};

} // namespace KR
