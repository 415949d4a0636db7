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

/// The limits of one calling process, for all of its sockets together. Thread-safe.
class KRLocalCaller {
public:
    static constexpr std::size_t kMaxRunning =
        512; ///< requests; others wait in the sockets, except one per socket
    static constexpr std::size_t kMaxRunningBytes = std::size_t{512}
                                                    << 20; ///< of them, sent through the sockets
    using Sessions = std::vector<std::weak_ptr<KRLocalSession>>;

    explicit KRLocalCaller(std::string name) : name_(std::move(name)) {}

    const std::string& getName() const noexcept { return name_; }
    const std::shared_ptr<KRLendings::Bytes>& getLentBytes() const noexcept { return lentBytes_; }

    /// A request of the session has been read and runs. \return whether the session must stop reading, as for holds()
    bool begin(std::size_t bytes, const std::weak_ptr<KRLocalSession>& session) KR_EXCLUDES(mutex_);
    /// Whether the session must stop reading, because too many requests run. finish() returns it when it may read again.
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
