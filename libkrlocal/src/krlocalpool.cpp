#include "krlocalpool.hpp"

#include "krlendings.hpp"

#include "krlocal/krlocalmessage.hpp"

#include <krplatform/krlog.hpp>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>

namespace KR {

namespace {

constexpr std::size_t kSharedSlotsSize = std::size_t{8} << 20; // of many slots together; one of a larger slot

/// Four sizes per power of two, so that at most a fifth of a slot is unused. Multiples of a page.
std::size_t roundUp(std::size_t size) noexcept {
    const std::size_t step = std::bit_floor(size) / 4;
    return (size + step - 1) / step * step;
}

} // namespace

const std::shared_ptr<KRLocalPool>& KRLocalPool::ofProcess() {
    // Never destroyed: binaries may outlive static objects.
    static const auto& pool = *new std::shared_ptr<KRLocalPool>([] {
        setBinaryAllocator([](std::size_t size) noexcept { return ofProcess()->allocate(size); });
        return std::make_shared<KRLocalPool>(0);
    }());
    return pool;
}

void KRLocalPool::setLimit(std::size_t limit) {
    {
        const KRLock lock(mutex_);
        limit_ = limit;
    }
    trim(std::chrono::hours(1));
}

std::size_t KRLocalPool::getLimit() const {
    const KRLock lock(mutex_);
    return limit_;
}

std::size_t KRLocalPool::getSize() const {
    const KRLock lock(mutex_);
    return size_;
}

std::size_t KRLocalPool::getUsedSlots() const {
    const KRLock lock(mutex_);
    return used_;
}

boost::shared_ptr<unsigned char[]> KRLocalPool::allocate(std::size_t size) noexcept {
    if (size < KRLocalMessage::kSharedFrom || size > KRLocalMessage::kMaxBytes) {
        return nullptr;
    }
    const std::size_t slotSize = roundUp(size);
    try {
        if (auto slot = takeFree(slotSize)) {
            return slot;
        }
        collect();
        if (auto slot = takeFree(slotSize)) {
            return slot;
        }
        return grow(slotSize) ? takeFree(slotSize) : nullptr;
    } catch (const std::exception& error) { // no memory, no descriptors: the caller uses the heap
        if (!isShort_.exchange(true)) {
            logWarning("krlocal",
                       std::string("images go through sockets for want of shared memory: ") + error.what());
        }
        return nullptr;
    }
}

boost::shared_ptr<unsigned char[]> KRLocalPool::takeFree(std::size_t slotSize) {
    Slot slot{};
    {
        const KRLock lock(mutex_);
        const auto found = free_.find(slotSize);
        if (found == free_.end() || found->second.empty()) {
            return nullptr;
        }
        slot = found->second.back();
        found->second.pop_back();
        ++slot.memory->used;
        ++used_;
    }
    // If the handle cannot be made, its deleter has run.
    return {slot.memory->shared->data() + slot.offset,
            [pool = shared_from_this(), slot](unsigned char*) { pool->release(slot); }};
}

void KRLocalPool::release(Slot slot) noexcept {
    const KRLock lock(mutex_);
    free_[slot.memory->slotSize].push_back(slot); // room was reserved when the memory was made
    assert(used_ > 0 && slot.memory->used > 0);
    --used_;
    if (--slot.memory->used == 0) {
        slot.memory->idleSince = std::chrono::steady_clock::now();
    }
}

bool KRLocalPool::grow(std::size_t slotSize) {
    static std::atomic<std::uint32_t> lastId = 0;
    std::vector<std::shared_ptr<KRSharedMemory>> dropped;
    std::vector<std::uint32_t> ids;
    std::size_t slots = 1;
    {
        const KRLock lock(mutex_);
        slots = std::max<std::size_t>(1, std::min(kSharedSlotsSize, limit_ / 8) / slotSize);
        // Frees memory of other sizes, the longest idle first.
        while (size_ + slots * slotSize > limit_) {
            auto oldest = memories_.end();
            for (auto each = memories_.begin(); each != memories_.end(); ++each) {
                if (each->second->used == 0 &&
                    (oldest == memories_.end() || each->second->idleSince < oldest->second->idleSince)) {
                    oldest = each;
                }
            }
            if (oldest != memories_.end()) {
                drop(oldest, dropped, ids);
            } else if (slots > 1) {
                slots = std::max<std::size_t>(
                    1, std::min(slots - 1, (limit_ - std::min(limit_, size_)) / slotSize));
            } else {
                slots = 0;
                break;
            }
        }
        size_ += slots * slotSize; // reserved
    }
    reportDropped(ids);
    if (slots == 0) {
        return false;
    }
    try {
        auto memory = std::make_unique<Memory>();
        memory->shared = std::make_shared<KRSharedMemory>(slots * slotSize);
        memory->id = ++lastId;
        memory->slotSize = slotSize;
        memory->used = 0;
        memory->idleSince = std::chrono::steady_clock::now();
        const KRLock lock(mutex_);
        std::size_t all = slots;
        for (const auto& [address, other] : memories_) {
            all += other->slotSize == slotSize ? other->shared->size() / slotSize : 0;
        }
        isShort_ = false;
        std::vector<Slot>& list = free_[slotSize];
        list.reserve(all);
        if (memories_.empty()) {
            wakeTrimmers();
        }
        Memory* const added = memory.get();
        memories_.emplace(added->shared->data(), std::move(memory));
        for (std::size_t i = slots; i > 0; --i) { // the first slot is used first
            list.push_back({added, (i - 1) * slotSize});
        }
        return true;
    } catch (...) {
        const KRLock lock(mutex_);
        size_ -= slots * slotSize;
        throw;
    }
}

void KRLocalPool::addWaker(const std::shared_ptr<const KRLocalWaker>& waker) {
    const KRLock lock(mutex_);
    wakers_.push_back(waker);
    if (!memories_.empty()) {
        waker->wake(); // whoever was woken when the first was made may be gone
    }
}

void KRLocalPool::wakeTrimmers() {
    for (const auto& each : wakers_) {
        if (const auto waker = each.lock()) {
            waker->wake();
        }
    }
    std::erase_if(wakers_, [](const auto& each) { return each.expired(); });
}

KRLocalPool::Memories::iterator KRLocalPool::drop(Memories::iterator memory,
                                                  std::vector<std::shared_ptr<KRSharedMemory>>& dropped,
                                                  std::vector<std::uint32_t>& ids) {
    Memory& gone = *memory->second;
    dropped.reserve(dropped.size() + 1);
    ids.push_back(gone.id);
    dropped.push_back(gone.shared); // unmapped without the lock
    std::erase_if(free_[gone.slotSize], [&](const Slot& slot) { return slot.memory == &gone; });
    assert(gone.used == 0 && size_ >= gone.shared->size());
    size_ -= gone.shared->size();
    return memories_.erase(memory);
}

bool KRLocalPool::trim(std::chrono::steady_clock::duration idle) {
    collect();
    std::vector<std::shared_ptr<KRSharedMemory>> dropped;
    std::vector<std::uint32_t> ids;
    bool left = false;
    {
        const auto now = std::chrono::steady_clock::now();
        const KRLock lock(mutex_);
        for (auto each = memories_.begin(); each != memories_.end();) {
            const Memory& memory = *each->second;
            const bool goes = memory.used == 0 && (now - memory.idleSince >= idle || size_ > limit_);
            each = goes ? drop(each, dropped, ids) : std::next(each);
        }
        left = !memories_.empty();
    }
    reportDropped(ids);
    return left;
}

void KRLocalPool::reportDropped(const std::vector<std::uint32_t>& ids) {
    if (ids.empty()) {
        return;
    }
    for (const auto& lendings : getAttached()) {
        lendings->forget(ids);
    }
}

std::optional<KRLocalPool::Place> KRLocalPool::find(const unsigned char* bytes, std::size_t size) const {
    const KRLock lock(mutex_);
    auto after = memories_.upper_bound(bytes);
    if (after == memories_.begin()) {
        return std::nullopt;
    }
    const Memory& memory = *std::prev(after)->second;
    const auto offset = static_cast<std::size_t>(bytes - memory.shared->data());
    if (offset >= memory.shared->size() || memory.shared->size() - offset < size) {
        return std::nullopt;
    }
    return Place{memory.shared, memory.id, offset};
}

void KRLocalPool::attach(const std::shared_ptr<KRLendings>& lendings) {
    const KRLock lock(mutex_);
    std::erase_if(attached_, [](const auto& each) { return each.expired(); });
    attached_.push_back(lendings);
}

void KRLocalPool::keepUntilReturned(std::shared_ptr<KRLendings> lendings) {
    const KRLock lock(mutex_);
    closed_.push_back(std::move(lendings));
}

std::vector<std::shared_ptr<KRLendings>> KRLocalPool::getAttached() const {
    std::vector<std::shared_ptr<KRLendings>> all;
    const KRLock lock(mutex_);
    all.reserve(attached_.size());
    for (const auto& each : attached_) {
        if (auto lendings = each.lock()) {
            all.push_back(std::move(lendings));
        }
    }
    return all;
}

std::size_t KRLocalPool::getLentCount() const {
    std::size_t count = 0;
    for (const auto& lendings : getAttached()) {
        count += lendings->collect();
    }
    return count;
}

void KRLocalPool::collect() {
    const std::vector<std::shared_ptr<KRLendings>> all = getAttached();
    std::vector<std::shared_ptr<KRLendings>> empty;
    for (const auto& lendings : all) {
        if (lendings->collect() == 0) {
            empty.push_back(lendings);
        }
    }
    const KRLock lock(mutex_);
    std::erase_if(closed_, [&](const auto& each) {
        return std::find(empty.begin(), empty.end(), each) != empty.end();
    });
}

} // namespace KR
