#pragma once

#include "krlocal/krlocalmessage.hpp"

#include <krplatform/krexport.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace KR {

class KRLocalSession;

/// Where an endpoint can be reached. Give it only to those who may connect.
struct KR_EXPORT KRLocalAddress {
    std::string machine; ///< this boot of the machine, and the network namespace
    std::string socket;  ///< name in the abstract namespace of AF_UNIX
    std::string secret;  ///< drawn anew for each endpoint
    pid_t process = 0;   ///< the listening process, verified when connecting; 0: any
    uid_t user = 0;      ///< its user

    /// Whether a socket of this process can reach it.
    bool isOnThisMachine() const;
    /// One line of text without the characters that need escaping.
    std::string toText() const;
    /// \return nullopt: not what toText() returns, or that of another version
    static std::optional<KRLocalAddress> parse(std::string_view text);
};

/// Who may connect, and how much memory is shared.
struct KRLocalOptions {
    std::string id;    ///< identity sent with each request; 1 to 1024 bytes
    std::string group; ///< members of this group may connect as well; empty: only the same user
    /// Most shared memory that this process offers to others, in bytes; 0: none. The newest endpoint decides.
    std::size_t memory = std::size_t{256} << 20;
};

/// A request from another process. Thread-safe once served.
class KR_EXPORT KRLocalRequest {
public:
    /// If destroyed unanswered, the caller gets an error.
    ~KRLocalRequest();
    KRLocalRequest(const KRLocalRequest&) = delete;
    KRLocalRequest& operator=(const KRLocalRequest&) = delete;

    /// Identity that the calling endpoint claims.
    const std::string& getCaller() const noexcept;
    /// The calling process; 0: not visible from here.
    pid_t getCallerProcess() const noexcept;
    /// Whether the connection has ended, so the answer has no receiver.
    bool isCallerGone() const noexcept;
    /// Sends the answer; only the first one counts. Blocks while the caller does not read. Dropped if the caller is
    /// gone. \throws KRError the message is beyond the bounds; the request is still unanswered
    void reply(const KRLocalMessage& answer);

    KRLocalMessage message; ///< the request

private:
    friend class KRLocalServer;
    KRLocalRequest(std::shared_ptr<KRLocalSession> session, std::uint64_t number, std::size_t bytes,
                   KRLocalMessage received);

    const std::shared_ptr<KRLocalSession> session_;
    const std::uint64_t number_;
    const std::size_t bytes_; // received through the socket
    std::atomic<bool> answered_ = false;
};

/// What an endpoint needs from its owner. Called on several threads at once, without a lock held.
class KR_EXPORT KRLocalService {
public:
    virtual ~KRLocalService();

    /// Runs the job on another thread, soon. The job may run for as long as there are requests.
    /// \throws std::exception no thread
    virtual void post(std::function<void()> job) = 0;
    /// Serves a request on the thread that read it. May take any time.
    virtual void serve(std::shared_ptr<KRLocalRequest> request) noexcept = 0;
    /// A process that may have sent requests has closed its connection or ended.
    virtual void noticeCallerGone(const std::string& caller) noexcept = 0;
};

/// A connection that carries calls to another process, through a socket of its own for each of up to 32 calls at once.
/// Thread-safe.
class KR_EXPORT KRLocalConnection {
public:
    virtual ~KRLocalConnection();

    /// Sends a request and waits for the reply, for as long as the other process lives. The calling thread writes the
    /// request itself, and reads the reply itself unless it shares a socket with a caller that is reading.
    /// \throws KRError the message is beyond the bounds; the connection is closed, the description says why
    virtual KRLocalMessage call(const KRLocalMessage& request) = 0;
    /// Whether the other process is still connected.
    virtual bool isOpen() const = 0;
    /// Fails pending and future calls. \param why  description of their error
    virtual void close(const std::string& why) = 0;
};

/// Counters of an endpoint.
struct KRLocalStatistics {
    std::size_t memory = 0;         ///< bytes of shared memory that this process has
    std::size_t lent = 0;           ///< binaries in it that other processes hold
    std::uint64_t shared = 0;       ///< binaries sent in shared memory
    std::uint64_t streamed = 0;     ///< large binaries sent through the socket for lack of shared memory
    std::size_t connections = 0;    ///< sockets of connections from other processes
    std::uint64_t refused = 0;      ///< connections refused
    std::uint64_t disconnected = 0; ///< connections closed because the peer broke the protocol
};

/// Accepts connections from other processes of this machine, and connects to them.
///
/// A connection carries calls in one direction: two processes that call each other have two. Thread-safe.
class KR_EXPORT KRLocalEndpoint {
public:
    /// Starts listening. \param service  outlives this \throws KRError no socket; there is no such group
    KRLocalEndpoint(KRLocalOptions options, KRLocalService& service);
    /// As stop().
    ~KRLocalEndpoint();
    KRLocalEndpoint(const KRLocalEndpoint&) = delete;
    KRLocalEndpoint& operator=(const KRLocalEndpoint&) = delete;

    /// Where others connect.
    const KRLocalAddress& getAddress() const noexcept;

    /// Connects to another endpoint; blocks until it answers.
    /// \param onGone  called once, with the reason, when the connection has ended: on a thread of this endpoint or a
    ///                calling thread, without a lock held; not after stop()
    /// \return null: nothing listens there any more; the endpoint was stopped or its process has ended
    /// \throws KRError it does not answer in time, is not the process of the address, or is of another user
    std::shared_ptr<KRLocalConnection> connect(const KRLocalAddress& address,
                                               std::chrono::milliseconds patience,
                                               std::function<void(const std::string& why)> onGone);

    /// Current counters. Thread-safe.
    KRLocalStatistics getStatistics() const;

    /// Closes all connections in both directions, and returns when no other thread serves a request or runs a function
    /// of the service.
    void stop() noexcept;

private:
    class Private;
    std::shared_ptr<Private> private_;
};

} // namespace KR
