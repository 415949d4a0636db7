#pragma once

#include "krlocalframe.hpp"
#include "krlocalpool.hpp"
#include "krsharedmemory.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace KR {

/// The binaries in shared memory that another process has received through one socket and not returned yet. Thread-safe.
///
/// Each has a ticket. To return it, the other process writes the ticket's generation to its page of returns, without a
/// message or a wake-up. Until then the binary keeps its memory.
class KRLendings {
public:
    /// Bytes that a connection has lent, through all of its sockets.
    using Bytes = std::atomic<std::size_t>;

    KRLendings(std::shared_ptr<KRLocalPool> pool, std::shared_ptr<Bytes> lentBytes,
               std::unique_ptr<const KRForeignMemory> returns);

    /// The binary in the pool: itself if it is there, otherwise a copy. Empty if there is no room.
    KRBinary toShared(const KRBinary& binary) KR_EXCLUDES(mutex_);
    /// Lends a binary that is in the pool, and adds it to the frame. Also adds its memory to `memories` if the other
    /// does not have it yet. Send frames in the order in which they are made.
    /// \param mostMemories  that may be in the frame
    /// \return false, and nothing is added: the limit of one process is reached \throws KRLocalMalformed see check()
    bool lend(const KRBinary& binary, KRLocalFrame& frame,
              std::vector<std::shared_ptr<const KRSharedMemory>>& memories,
              std::size_t mostMemories = KRLocalFrame::kMaxMemories) KR_EXCLUDES(mutex_);
    /// The frame was not sent: undoes what lend() has added to it.
    void takeBack(const KRLocalFrame& frame) KR_EXCLUDES(mutex_);
    /// Collects returned binaries. \return number that the other still holds
    std::size_t collect() KR_EXCLUDES(mutex_);
    std::size_t getCount() const KR_EXCLUDES(mutex_);
    bool isClosed() const KR_EXCLUDES(mutex_);
    /// \throws KRLocalMalformed the other has returned a binary that it did not hold
    void check() const KR_EXCLUDES(mutex_);

    /// Memories of the pool have been freed.
    void forget(const std::vector<std::uint32_t>& ids) KR_EXCLUDES(mutex_);
    /// Freed memories to report to the other, at most as many as fit a frame.
    std::vector<std::uint32_t> takeForgotten() KR_EXCLUDES(mutex_);
    /// They could not be reported.
    void returnForgotten(const std::vector<std::uint32_t>& ids) KR_EXCLUDES(mutex_);

    /// The connection is closed: nothing more is lent.
    /// \param process  the other process: its binaries stay valid until returned or until it ends; 0: everything is
    ///                 reclaimed at once
    /// \return whether it holds anything now and did not at an earlier call
    bool close(pid_t process) noexcept KR_EXCLUDES(mutex_);

private:
    struct Ticket {
        KRBinary binary;
        std::uint32_t generation = 0; // the last
    };

    /// Makes free tickets, unless there are as many as the page has room for.
    void addTickets() KR_REQUIRES(mutex_);
    void collectLocked(std::vector<KRBinary>& returned) KR_REQUIRES(mutex_);
    void takeAll(std::vector<KRBinary>& returned) KR_REQUIRES(mutex_);
    /// Begins to watch for the end of the holder. Takes all back if it has ended.
    void watchHolder(std::vector<KRBinary>& returned) KR_REQUIRES(mutex_);

    const std::shared_ptr<KRLocalPool> pool_;
    const std::shared_ptr<Bytes> lentBytes_;
    const std::unique_ptr<const KRForeignMemory> returns_;

    mutable KRMutex mutex_;
    std::vector<Ticket> tickets_ KR_GUARDED_BY(mutex_);
    std::vector<std::uint32_t> free_ KR_GUARDED_BY(mutex_);
    std::vector<std::uint32_t> lent_ KR_GUARDED_BY(mutex_);
    std::set<std::uint32_t> known_ KR_GUARDED_BY(mutex_); // memories that the other has
    std::vector<std::uint32_t> forgotten_ KR_GUARDED_BY(mutex_);
    bool closed_ KR_GUARDED_BY(mutex_) = false;
    std::string lie_ KR_GUARDED_BY(mutex_);
    pid_t holder_ KR_GUARDED_BY(mutex_) = 0;     // the other process; after close()
    KRDescriptor process_ KR_GUARDED_BY(mutex_); // readable when it has ended; empty: not watched yet
};

} // namespace KR
