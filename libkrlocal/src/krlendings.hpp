#pragma once

#include "krlocalframe.hpp"
#include "krlocalpool.hpp"
#include "krsharedmemory.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>

#include <sys/types.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace KR {

/// The binaries in shared memory that one other process has been sent and has not given back. Thread-safe.
///
/// Each has a ticket; the other writes the ticket's generation on its page of returns to give it back, without a message
/// and without waking anybody. It keeps its memory until then.
class KRLendings {
public:
    KRLendings(std::shared_ptr<KRLocalPool> pool, std::unique_ptr<const KRForeignMemory> returns);

    /// The binary in the pool: itself if it is there, or else a copy. Without bytes: there is no room.
    KRBinary toShared(const KRBinary& binary) const;
    /// Lends a binary that is in the pool, and adds it to the frame. Memory that the other does not have yet is added to
    /// `memories` as well. Frames are to be sent in the order in which they are made.
    /// \return false, and nothing is added: beyond what one process is lent \throws KRLocalMalformed see check()
    bool lend(const KRBinary& binary, KRLocalFrame& frame,
              std::vector<std::shared_ptr<const KRSharedMemory>>& memories) KR_EXCLUDES(mutex_);
    /// Takes what has been given back. \return binaries that the other still holds
    std::size_t collect() KR_EXCLUDES(mutex_);
    std::size_t getCount() const KR_EXCLUDES(mutex_);
    bool isClosed() const KR_EXCLUDES(mutex_);
    /// \throws KRLocalMalformed the other has given back what it did not have
    void check() const KR_EXCLUDES(mutex_);

    /// Memories of the pool are no more.
    void forget(const std::vector<std::uint32_t>& ids) KR_EXCLUDES(mutex_);
    /// Those of them that the other has not been told about, at most as many as a frame can name.
    std::vector<std::uint32_t> takeForgotten() KR_EXCLUDES(mutex_);
    /// The other could not be told.
    void returnForgotten(const std::vector<std::uint32_t>& ids) KR_EXCLUDES(mutex_);

    /// The connection is closed: nothing is lent any more.
    /// \param process  of the other: what it holds stays as it is until it gives it back or ends; 0: everything is taken
    ///                 back at once
    /// \return whether it holds anything now and did not at an earlier call
    bool close(pid_t process) noexcept KR_EXCLUDES(mutex_);

private:
    struct Ticket {
        KRBinary binary;
        std::uint32_t generation = 0; // the last
    };

    void collectLocked(std::vector<KRBinary>& returned) KR_REQUIRES(mutex_);
    void takeAll(std::vector<KRBinary>& returned) KR_REQUIRES(mutex_);

    const std::shared_ptr<KRLocalPool> pool_;
    const std::unique_ptr<const KRForeignMemory> returns_;

    mutable KRMutex mutex_;
    std::vector<Ticket> tickets_ KR_GUARDED_BY(mutex_);
    std::vector<std::uint32_t> free_ KR_GUARDED_BY(mutex_);
    std::vector<std::uint32_t> lent_ KR_GUARDED_BY(mutex_);
    std::size_t lentBytes_ KR_GUARDED_BY(mutex_) = 0;
    std::set<std::uint32_t> known_ KR_GUARDED_BY(mutex_); // memories that the other has
    std::vector<std::uint32_t> forgotten_ KR_GUARDED_BY(mutex_);
    bool closed_ KR_GUARDED_BY(mutex_) = false;
    std::string lie_ KR_GUARDED_BY(mutex_);
    KRDescriptor process_ KR_GUARDED_BY(mutex_); // readable when the other has ended; after close()
};

} // namespace KR
