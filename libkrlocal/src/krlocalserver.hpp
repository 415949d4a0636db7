#pragma once

#include "krdescriptor.hpp"
#include "krlocalcaller.hpp"
#include "krlocalchannel.hpp"

#include "krlocal/krlocalendpoint.hpp"

#include <krplatform/krmutex.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace KR {

/// The serving side of a connection's socket.
///
/// One thread at a time reads it. While that thread runs its request, nobody reads, as the caller waits for the reply
/// before sending more; otherwise it signals the bell, and another thread reads.
class KRLocalSession : public std::enable_shared_from_this<KRLocalSession> {
public:
    /// \param bell  eventfd that the caller rings
    KRLocalSession(std::unique_ptr<KRLocalChannel> channel, KRDescriptor bell,
                   std::shared_ptr<KRLocalCaller> caller, std::uint64_t id,
                   std::shared_ptr<const KRDescriptor> epoll,
                   std::shared_ptr<std::atomic<std::uint64_t>> disconnected)
        : channel_(std::move(channel)), bell_(std::move(bell)), caller_(std::move(caller)), id_(id),
          epoll_(std::move(epoll)), disconnected_(std::move(disconnected)) {}

    KRLocalChannel& getChannel() const noexcept { return *channel_; }
    const std::shared_ptr<KRLocalCaller>& getCaller() const noexcept { return caller_; }
    std::uint64_t getId() const noexcept { return id_; }

    bool hasEnded() const noexcept { return ended_; }
    void end() noexcept { ended_ = true; }

    int getBell() const noexcept { return bell_.get(); }

    /// The socket has woken the calling thread. \return whether it may read now
    bool takeOver() KR_EXCLUDES(mutex_);
    /// The bell has woken the calling thread. \return whether it may read now
    bool answerBell() KR_EXCLUDES(mutex_);
    /// The calling thread has run its request. \return whether it continues reading
    bool readOn() KR_EXCLUDES(mutex_);
    /// The calling thread stops reading: the next message wakes another, unless too many requests are running.
    void awaitMessage() KR_EXCLUDES(mutex_);
    /// The calling thread has read a request and runs it. \param further  whether the bell was signalled for it
    void begin(std::size_t bytes, bool further) KR_EXCLUDES(mutex_);
    /// A request that this session has read has ended.
    void finish(std::size_t bytes) noexcept;
    /// The other has broken the protocol.
    void disconnect(const std::string& why) noexcept;

private:
    void arm(bool messages) KR_REQUIRES(mutex_);
    void resume() KR_EXCLUDES(mutex_);

    const std::unique_ptr<KRLocalChannel> channel_;
    const KRDescriptor bell_;
    const std::shared_ptr<KRLocalCaller> caller_;
    const std::uint64_t id_;
    const std::shared_ptr<const KRDescriptor> epoll_;
    const std::shared_ptr<std::atomic<std::uint64_t>> disconnected_;
    std::atomic<bool> broken_ = false;
    std::atomic<bool> ended_ = false;

    KRMutex mutex_;
    bool paused_ KR_GUARDED_BY(mutex_) = false;     // its caller holds it
    bool read_ KR_GUARDED_BY(mutex_) = false;       // a thread is reading
    std::uint32_t armed_ KR_GUARDED_BY(mutex_) = 0; // events of the socket that wake a thread
    std::int64_t
        announced_ KR_GUARDED_BY(mutex_) = 0; // rings of the bell without the request that they are for
};

/// Serves the requests of all connections, on threads of the service.
///
/// These threads wait for the same set of sockets, and the kernel wakes one of them for a message. That thread reads it,
/// runs the request, and keeps reading the same socket for a while, so a caller in a loop always finds the same thread
/// waiting for it. Besides the threads that run requests or wait for one caller, two threads wait for all callers.
class KRLocalServer : public std::enable_shared_from_this<KRLocalServer> {
public:
    /// \throws KRError
    KRLocalServer(KRLocalService& service, std::shared_ptr<std::atomic<std::uint64_t>> disconnected);
    KRLocalServer(const KRLocalServer&) = delete;
    KRLocalServer& operator=(const KRLocalServer&) = delete;

    /// Serves the requests of this channel.
    /// \param bell  eventfd that the caller rings
    void add(std::unique_ptr<KRLocalChannel> channel, KRDescriptor bell,
             std::shared_ptr<KRLocalCaller> caller) KR_EXCLUDES(mutex_);
    std::size_t getCount() const KR_EXCLUDES(mutex_);
    /// \return null: it has no socket here
    std::shared_ptr<KRLocalCaller> findCaller(const std::string& name) const KR_EXCLUDES(mutex_);
    /// Reports freed memory to callers. \return whether something is left to report
    bool sendNotices() KR_EXCLUDES(mutex_);
    /// Closes all connections, and waits for other threads than this one to leave the service.
    void stop() noexcept KR_EXCLUDES(mutex_);

private:
    static constexpr int kWaiting = 2;     // threads that wait even if all connections are idle
    static constexpr int kMaxReading = 32; // threads that wait for one caller each

    void startThread() KR_EXCLUDES(mutex_);
    void run() KR_EXCLUDES(mutex_);
    /// \param event  id of a session, and whether it is its bell
    void serve(std::uint64_t event) KR_EXCLUDES(mutex_);
    /// Reads a request and runs it. \return whether there was one
    bool serveNext(const std::shared_ptr<KRLocalSession>& session) KR_EXCLUDES(mutex_);
    /// Waits for a message, unless enough threads do. \return nullopt: none for a while
    std::optional<KRLocalChannel::Received> receive(KRLocalChannel& channel);
    void remove(const std::shared_ptr<KRLocalSession>& session) KR_EXCLUDES(mutex_);

    KRLocalService& service_; // not used after stop()
    const std::shared_ptr<std::atomic<std::uint64_t>> disconnected_;
    const std::shared_ptr<const KRDescriptor> epoll_;
    const KRDescriptor wake_; // readable once stopped
    std::atomic<bool> stopped_ = false;
    std::atomic<int> waiting_ = 0; // threads that wait for all callers
    std::atomic<int> reading_ = 0; // threads that wait for one

    mutable KRMutex mutex_;
    KRCondition left_;
    int threads_ KR_GUARDED_BY(mutex_) = 0;
    std::uint64_t lastId_ KR_GUARDED_BY(mutex_) = 0; // 0 is that of wake_
    std::map<std::uint64_t, std::shared_ptr<KRLocalSession>> sessions_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
