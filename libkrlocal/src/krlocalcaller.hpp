#pragma once

#include "krlendings.hpp"

#include <krplatform/krmutex.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KR {

class KRLocalSession;

/// What the sockets of one calling process share: bounds. Thread-safe.
class KRLocalCaller {
public:
    static constexpr std::size_t kMaxRunning =
        512; ///< requests; more wait in the sockets, except one for each
    static constexpr std::size_t kMaxRunningBytes = std::size_t{512}
                                                    << 20; ///< of them, sent through the sockets
    using Sessions = std::vector<std::weak_ptr<KRLocalSession>>;

    explicit KRLocalCaller(std::string name) : name_(std::move(name)) {}

    const std::string& getName() const noexcept { return name_; }
    const std::shared_ptr<KRLendings::Bytes>& getLentBytes() const noexcept { return lentBytes_; }

    /// A request of the session has been read and runs. \return as holds()
    bool begin(std::size_t bytes, const std::weak_ptr<KRLocalSession>& session) KR_EXCLUDES(mutex_);
    /// Whether the session must not read: too many requests run. It is kept, for finish() to return.
    bool holds(const std::weak_ptr<KRLocalSession>& session) KR_EXCLUDES(mutex_);
    /// \return sessions that may read again
    Sessions finish(std::size_t bytes) noexcept KR_EXCLUDES(mutex_);

private:
    bool isFull() const KR_REQUIRES(mutex_) {
        return running_ >= kMaxRunning || runningBytes_ >= kMaxRunningBytes;
    }

    const std::string name_;
    const std::shared_ptr<KRLendings::Bytes> lentBytes_ = std::make_shared<KRLendings::Bytes>(0);

    KRMutex mutex_;
    std::size_t running_ KR_GUARDED_BY(mutex_) = 0;
    std::size_t runningBytes_ KR_GUARDED_BY(mutex_) = 0;
    Sessions held_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
