#pragma once

#include "krlocalwaker.hpp"
#include "krsharedmemory.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace KR {

class KRLendings;

/// Shared memory of this process for binaries, divided into reusable slots: a new memfd for each image would cost more
/// than copying it. Grows and shrinks with use, up to a limit. Thread-safe.
///
/// A slot is in use while a handle to it exists: with the module that filled it, in a message, or in the lendings of a
/// connection whose other side has not given it back.
class KRLocalPool : public std::enable_shared_from_this<KRLocalPool> {
public:
    /// The pool of KRBinary::allocate(), from the first call of this function on.
    static const std::shared_ptr<KRLocalPool>& ofProcess();

    /// \param limit  maximum bytes of shared memory; memory beyond a lowered limit is released once free
    explicit KRLocalPool(std::size_t limit) : limit_(limit) {}

    void setLimit(std::size_t limit) KR_EXCLUDES(mutex_);
    std::size_t getLimit() const KR_EXCLUDES(mutex_);

    /// A slot of at least `size` bytes, page-aligned and uninitialised. Null: the limit is reached, or the size is below
    /// KRLocalMessage::kSharedFrom.
    boost::shared_ptr<unsigned char[]> allocate(std::size_t size) noexcept KR_EXCLUDES(mutex_);

    struct Place {
        std::shared_ptr<const KRSharedMemory> memory;
        std::uint32_t id;
        std::uint64_t offset;
    };
    /// Location of the bytes in the pool; nullopt: elsewhere.
    std::optional<Place> find(const unsigned char* bytes, std::size_t size) const KR_EXCLUDES(mutex_);

    /// Registers lendings: the pool collects their returned slots when it runs short, and reports freed memory to them.
    void attach(const std::shared_ptr<KRLendings>& lendings) KR_EXCLUDES(mutex_);
    /// The connection is closed, but the other process may still hold binaries: keeps their slots until they are returned.
    void keepUntilReturned(std::shared_ptr<KRLendings> lendings) KR_EXCLUDES(mutex_);

    /// Wakes somebody who calls trim() when there is memory after there was none.
    void addWaker(const std::shared_ptr<const KRLocalWaker>& waker) KR_EXCLUDES(mutex_);
    /// Frees memory with no slot in use, if it has been idle for that long or is beyond the limit.
    /// \return whether any memory is left
    bool trim(std::chrono::steady_clock::duration idle) KR_EXCLUDES(mutex_);
    /// Collects returned slots.
    void collect() KR_EXCLUDES(mutex_);

    std::size_t getSize() const KR_EXCLUDES(mutex_); ///< bytes of shared memory
    std::size_t getUsedSlots() const KR_EXCLUDES(mutex_);
    /// Binaries that other processes hold.
    std::size_t getLentCount() const KR_EXCLUDES(mutex_);

private:
    struct Memory {
        std::uint32_t id;
        std::size_t slotSize;
        std::shared_ptr<KRSharedMemory> shared;
        std::size_t used;
        std::chrono::steady_clock::time_point idleSince;
    };
    struct Slot {
        Memory* memory;
        std::size_t offset;
    };
    using Memories = std::map<const unsigned char*, std::unique_ptr<Memory>>; // by address

    boost::shared_ptr<unsigned char[]> takeFree(std::size_t slotSize) KR_EXCLUDES(mutex_);
    bool grow(std::size_t slotSize) KR_EXCLUDES(mutex_);
    void wakeTrimmers() KR_REQUIRES(mutex_);
    void release(Slot slot) noexcept KR_EXCLUDES(mutex_);
    /// Frees a memory with no slot in use. \return the next one
    Memories::iterator drop(Memories::iterator memory, std::vector<std::shared_ptr<KRSharedMemory>>& dropped,
                            std::vector<std::uint32_t>& ids) KR_REQUIRES(mutex_);
    void reportDropped(const std::vector<std::uint32_t>& ids) KR_EXCLUDES(mutex_);
    std::vector<std::shared_ptr<KRLendings>> getAttached() const KR_EXCLUDES(mutex_);

    std::atomic<bool> isShort_ = false; // of memory or descriptors for growing

    mutable KRMutex mutex_;
    std::size_t limit_ KR_GUARDED_BY(mutex_);
    std::size_t size_ KR_GUARDED_BY(mutex_) = 0;
    std::size_t used_ KR_GUARDED_BY(mutex_) = 0;
    Memories memories_ KR_GUARDED_BY(mutex_);
    std::map<std::size_t, std::vector<Slot>>
        free_ KR_GUARDED_BY(mutex_); // by size; the last used is the last
    std::vector<std::weak_ptr<KRLendings>> attached_ KR_GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<KRLendings>> closed_ KR_GUARDED_BY(mutex_);
    std::vector<std::weak_ptr<const KRLocalWaker>> wakers_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
