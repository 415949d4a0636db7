#pragma once

#include "krborrowings.hpp"
#include "krdescriptor.hpp"
#include "krlendings.hpp"
#include "krlocalframe.hpp"
#include "krlocalwaker.hpp"

#include "krlocal/krlocalmessage.hpp"

#include <krplatform/krmutex.hpp>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR {

/// The connection has been closed, by either process.
class KRLocalClosed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Counts of a process's messages. Thread-safe.
struct KRLocalCounts {
    std::atomic<std::uint64_t> shared = 0;   // binaries sent in shared memory
    std::atomic<std::uint64_t> streamed = 0; // large binaries sent through the socket
};

/// Messages over one connected socket in both directions, with the shared memory of both sides.
///
/// Any number of threads may send; one at a time may receive.
class KRLocalChannel {
public:
    struct Received {
        KRLocalFrame::Kind kind;
        std::uint64_t number;
        std::size_t streamedBytes; ///< of its body and binaries received through the socket
        KRLocalMessage message;
    };
    /// Before open() only the first message of each side can be sent and received.
    /// \param waker  woken when the other begins to share memory
    KRLocalChannel(KRDescriptor socket, pid_t process, std::shared_ptr<KRLocalCounts> counts,
                   std::shared_ptr<const KRLocalWaker> waker);
    ~KRLocalChannel() { close(); }
    KRLocalChannel(const KRLocalChannel&) = delete;
    KRLocalChannel& operator=(const KRLocalChannel&) = delete;

    int getSocket() const noexcept { return socket_.get(); }
    pid_t getProcess() const noexcept { return process_; }

    /// Sends the first message, with the page for returning binaries.
    /// \param bell  eventfd that accompanies a Welcome
    /// \return false: not sent, as too many descriptors of this user are under way \throws KRLocalClosed
    bool sendGreeting(KRLocalFrame::Kind kind, std::uint64_t number, const std::string& body, int bell = -1)
        KR_EXCLUDES(sendMutex_);
    /// Receives the first message of the other. \return nullopt: it has not arrived
    /// \throws KRLocalClosed \throws KRLocalMalformed \throws std::system_error
    std::optional<Received> receiveGreeting();
    /// Both sides have authenticated: binaries may be lent to the other.
    /// \param lentBytes  of all sockets of the connection
    void open(const std::shared_ptr<KRLocalPool>& pool, const std::shared_ptr<KRLendings::Bytes>& lentBytes);

    /// Sends a message; blocks while the other does not read. While another request is unanswered, a Request is sent as
    /// Further, after signalling the bell. \throws KRError it is beyond the bounds
    /// \throws KRLocalClosed \throws KRLocalMalformed the other has broken the protocol
    void send(KRLocalFrame::Kind kind, std::uint64_t number, const KRLocalMessage& message)
        KR_EXCLUDES(sendMutex_);
    /// Reports freed memory to the other, if there is any and the socket has room; does not block.
    /// \return whether something is left to report \throws KRLocalClosed \throws KRLocalMalformed the other has broken the protocol
    bool sendNotice() KR_NO_THREAD_SAFETY_ANALYSIS;

    /// Timeout of receive(true) for a packet; without it, receive() waits indefinitely.
    void setPatience(std::chrono::milliseconds patience);
    /// Receives a message. \param wait  whether to block until it is complete \return nullopt: it is not complete yet
    /// \throws KRLocalClosed \throws KRLocalMalformed \throws std::exception no memory, no descriptors
    std::optional<Received> receive(bool wait);
    /// Whether the other has shared any memory with this process.
    bool hasBorrowings() const noexcept { return borrows_; }

    /// Wakes blocked operations on both sides. Binaries that the other holds stay valid until returned or until it ends.
    void close() noexcept;
    /// The other has broken the protocol: reclaims its binaries at once.
    void disown() noexcept;

private:
    struct Packet;
    struct Outgoing;
    struct Assembly {
        Received received;
        std::vector<boost::shared_ptr<unsigned char[]>> streamed; // null where a binary is in shared memory
        std::vector<std::size_t> sizes;
        std::uint64_t bodyMissing = 0;
        std::size_t next = 0;   // binary being filled
        std::size_t filled = 0; // bytes of it
        bool isComplete() const noexcept;
        void skipComplete() noexcept;
        /// \throws KRLocalMalformed more than is missing
        void fill(std::span<const unsigned char> bytes);
    };

    bool receivePacket(Packet& packet, bool wait);
    /// Takes over the memories that the frame announces, and drops those that it ends.
    void updateBorrowings(const KRLocalFrame& frame, const Packet& packet);
    Assembly begin(const KRLocalFrame& frame);
    /// Composes and counts a message and its binaries, as many of them in shared memory as possible.
    /// \param shared  the binaries in the pool; empty where they are not
    /// \param mostMemories  that the other may be given with it
    void compose(Outgoing& outgoing, const KRLocalMessage& message, const std::vector<KRBinary>& shared,
                 std::size_t mostMemories) KR_REQUIRES(sendMutex_);
    /// \return false: nothing was sent, as that would block, or as too many descriptors of this user are under way to
    ///                 processes that have not read them
    bool write(const std::string& head, std::vector<std::span<const unsigned char>> rest,
               const std::vector<int>& descriptors, bool wait) KR_REQUIRES(sendMutex_);
    bool writePacket(std::span<const std::span<const unsigned char>> pieces,
                     const std::vector<int>& descriptors, bool wait) KR_REQUIRES(sendMutex_);

    const KRDescriptor socket_;
    const pid_t process_;
    const std::shared_ptr<KRLocalCounts> counts_;
    const std::shared_ptr<const KRLocalWaker> waker_;
    std::shared_ptr<KRLendings> lendings_; // constant after open()
    std::shared_ptr<KRLocalPool> pool_;    // constant after open()

    // Used by the receiving thread.
    KRBorrowings borrowings_;
    std::unique_ptr<const KRForeignMemory> returns_; // from the greeting to open()
    std::optional<Assembly> assembly_;

    std::atomic<bool> borrows_ = false; // borrowings_ is not empty
    KRDescriptor bell_;                 // of the server, constant after its welcome
    std::atomic<int> unanswered_ = 0;   // requests sent

    KRMutex sendMutex_; // held while a message is written to the socket
};

} // namespace KR
