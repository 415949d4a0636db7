#pragma once

#include "krborrowings.hpp"
#include "krdescriptor.hpp"
#include "krlendings.hpp"
#include "krlocalframe.hpp"

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

/// The other process has closed the connection, or this one has.
class KRLocalClosed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Counts of a process's messages. Thread-safe.
struct KRLocalCounts {
    std::atomic<std::uint64_t> shared = 0;   // binaries sent in shared memory
    std::atomic<std::uint64_t> streamed = 0; // large binaries sent through the socket
};

/// Messages over one connected socket, both ways, with the shared memory of both sides.
///
/// Any number of threads may send; one at a time may receive.
class KRLocalChannel {
public:
    struct Received {
        KRLocalFrame::Kind kind;
        std::uint64_t number;
        std::size_t streamedBytes; ///< of its body and binaries, as far as they came through the socket
        KRLocalMessage message;
    };
    /// Before open() only the first message of either side can be sent and received.
    KRLocalChannel(KRDescriptor socket, pid_t process, std::shared_ptr<KRLocalCounts> counts);
    ~KRLocalChannel() { close(); }
    KRLocalChannel(const KRLocalChannel&) = delete;
    KRLocalChannel& operator=(const KRLocalChannel&) = delete;

    int getSocket() const noexcept { return socket_.get(); }
    pid_t getProcess() const noexcept { return process_; }

    /// Sends the first message, with the page that binaries are given back on.
    /// \param bell  eventfd that goes with a Welcome \throws KRLocalClosed
    void sendGreeting(KRLocalFrame::Kind kind, std::uint64_t number, const std::string& body, int bell = -1)
        KR_EXCLUDES(sendMutex_);
    /// Receives the first message of the other. \return nullopt: it has not come
    /// \throws KRLocalClosed \throws KRLocalMalformed \throws std::system_error
    std::optional<Received> receiveGreeting();
    /// Both have greeted: binaries may be lent to the other.
    void open(const std::shared_ptr<KRLocalPool>& pool);

    /// Sends a message; blocks while the other does not read. A Request goes as Further, after the bell has been rung,
    /// while another has no reply. \throws KRError it is beyond the bounds
    /// \throws KRLocalClosed \throws KRLocalMalformed the other has broken the protocol
    void send(KRLocalFrame::Kind kind, std::uint64_t number, const KRLocalMessage& message)
        KR_EXCLUDES(sendMutex_);
    /// Tells the other about memory that is no more, if there is any and the other reads; does not block.
    /// \throws KRLocalClosed \throws KRLocalMalformed the other has broken the protocol
    void sendNotice() KR_NO_THREAD_SAFETY_ANALYSIS;

    /// How long receive(true) waits for a packet at most; for ever without.
    void setPatience(std::chrono::milliseconds patience);
    /// Receives a message. \param wait  whether to block until it has come \return nullopt: not all of it has come
    /// \throws KRLocalClosed \throws KRLocalMalformed \throws std::exception no memory, no descriptors
    std::optional<Received> receive(bool wait);
    /// Whether the other has shared memory with this process. On the receiving thread.
    bool hasBorrowings() const noexcept { return !borrowings_.isEmpty(); }

    /// Ends what blocks, here and there. What the other holds stays as it is until it gives it back or ends.
    void close() noexcept;
    /// The other has broken the protocol: takes back at once what it holds.
    void disown() noexcept;

private:
    struct Packet;
    struct Assembly {
        Received received;
        std::vector<boost::shared_ptr<unsigned char[]>> streamed; // null where a binary is in shared memory
        std::vector<std::size_t> sizes;
        std::uint64_t bodyMissing = 0;
        std::size_t next = 0;   // binary that is being filled
        std::size_t filled = 0; // bytes of it
        bool isComplete() const noexcept;
        void skipComplete() noexcept;
        /// \throws KRLocalMalformed more than is missing
        void fill(std::span<const unsigned char> bytes);
    };

    bool receivePacket(Packet& packet, bool wait);
    Assembly begin(const KRLocalFrame& frame);
    /// \return false: nothing is sent because that would block
    bool write(const std::string& head, std::vector<std::span<const unsigned char>> rest,
               const std::vector<int>& descriptors, bool wait) KR_REQUIRES(sendMutex_);
    bool writePacket(std::span<const std::span<const unsigned char>> pieces,
                     const std::vector<int>& descriptors, bool wait) KR_REQUIRES(sendMutex_);

    const KRDescriptor socket_;
    const pid_t process_;
    const std::shared_ptr<KRLocalCounts> counts_;
    std::shared_ptr<KRLendings> lendings_; // constant after open()
    std::shared_ptr<KRLocalPool> pool_;    // constant after open()

    // Of the thread that receives.
    KRBorrowings borrowings_;
    std::unique_ptr<const KRForeignMemory> returns_; // from the greeting to open()
    std::optional<Assembly> assembly_;

    KRDescriptor bell_;               // of the server, constant after its greeting
    std::atomic<int> unanswered_ = 0; // requests that have been sent

    KRMutex sendMutex_;
};

} // namespace KR
