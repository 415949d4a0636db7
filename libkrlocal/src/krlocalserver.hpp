#pragma once

#include "krdescriptor.hpp"
#include "krlocalchannel.hpp"

#include "krlocal/krlocalendpoint.hpp"

#include <krplatform/krmutex.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace KR {

/// The serving side of a connection.
class KRLocalSession {
public:
    static constexpr std::size_t kMaxRunning = 512; ///< requests; more wait in the socket
    static constexpr std::size_t kMaxRunningBytes = std::size_t{512}
                                                    << 20; ///< of them, sent through the socket

    KRLocalSession(std::unique_ptr<KRLocalChannel> channel, std::string caller, std::uint64_t id,
                   std::shared_ptr<const KRDescriptor> epoll,
                   std::shared_ptr<std::atomic<std::uint64_t>> disconnected)
        : channel_(std::move(channel)), caller_(std::move(caller)), id_(id), epoll_(std::move(epoll)),
          disconnected_(std::move(disconnected)) {}

    KRLocalChannel& getChannel() const noexcept { return *channel_; }
    const std::string& getCaller() const noexcept { return caller_; }
    std::uint64_t getId() const noexcept { return id_; }

    bool hasEnded() const noexcept { return ended_; }
    void end() noexcept { ended_ = true; }

    /// The calling thread is the one that reads now: makes it see what the one before has written.
    void takeOver() KR_EXCLUDES(mutex_) { const KRLock lock(mutex_); }
    /// Lets a thread read the next message once it has come, as long as not too many requests run.
    void awaitMessage() KR_EXCLUDES(mutex_);
    /// A request begins to run, and another thread may read the next.
    void begin(std::size_t bytes) KR_EXCLUDES(mutex_);
    void finish(std::size_t bytes) noexcept KR_EXCLUDES(mutex_);
    /// The other has broken the protocol.
    void disconnect(const std::string& why) noexcept;

private:
    void arm() KR_REQUIRES(mutex_);

    const std::unique_ptr<KRLocalChannel> channel_;
    const std::string caller_;
    const std::uint64_t id_;
    const std::shared_ptr<const KRDescriptor> epoll_;
    const std::shared_ptr<std::atomic<std::uint64_t>> disconnected_;
    std::atomic<bool> broken_ = false;
    std::atomic<bool> ended_ = false;

    KRMutex mutex_;
    std::size_t running_ KR_GUARDED_BY(mutex_) = 0;
    std::size_t runningBytes_ KR_GUARDED_BY(mutex_) = 0;
    bool paused_ KR_GUARDED_BY(mutex_) = false; // too many run
};

/// Serves the requests of all connections, on threads of the service.
///
/// All of these threads wait for the same set of sockets, and the kernel wakes one of them for a message. That one reads it,
/// lets the socket wake another, and runs the request itself. Two more threads than run requests wait.
class KRLocalServer : public std::enable_shared_from_this<KRLocalServer> {
public:
    /// \throws KRError
    KRLocalServer(KRLocalService& service, std::shared_ptr<std::atomic<std::uint64_t>> disconnected);
    KRLocalServer(const KRLocalServer&) = delete;
    KRLocalServer& operator=(const KRLocalServer&) = delete;

    /// Serves what comes through this channel.
    void add(std::unique_ptr<KRLocalChannel> channel, const std::string& caller) KR_EXCLUDES(mutex_);
    std::size_t getCount() const KR_EXCLUDES(mutex_);
    /// Tells callers about memory that is no more.
    void sendNotices() KR_EXCLUDES(mutex_);
    /// Closes all connections, and waits for other threads than this one to leave the service.
    void stop() noexcept KR_EXCLUDES(mutex_);

private:
    static constexpr int kWaiting = 2; // threads that wait however idle the connections are

    void startThread() KR_EXCLUDES(mutex_);
    void run() KR_EXCLUDES(mutex_);
    void serve(std::uint64_t id) KR_EXCLUDES(mutex_);
    void remove(const std::shared_ptr<KRLocalSession>& session) KR_EXCLUDES(mutex_);

    KRLocalService& service_; // not used after stop()
    const std::shared_ptr<std::atomic<std::uint64_t>> disconnected_;
    const std::shared_ptr<const KRDescriptor> epoll_;
    const KRDescriptor wake_; // readable once stopped
    std::atomic<bool> stopped_ = false;
    std::atomic<int> waiting_ = 0; // threads

    mutable KRMutex mutex_;
    KRCondition left_;
    int threads_ KR_GUARDED_BY(mutex_) = 0;
    std::uint64_t lastId_ KR_GUARDED_BY(mutex_) = 0; // 0 is that of wake_
    std::map<std::uint64_t, std::shared_ptr<KRLocalSession>> sessions_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
