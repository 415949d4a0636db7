#include "krlendings.hpp"

#include "krlocal/krlocalmessage.hpp"

#include <poll.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace KR {

namespace {

constexpr std::size_t kCacheLine = 64;

} // namespace

KRLendings::KRLendings(std::shared_ptr<KRLocalPool> pool, std::shared_ptr<Bytes> lentBytes,
                       std::unique_ptr<const KRForeignMemory> returns)
    : pool_(std::move(pool)), lentBytes_(std::move(lentBytes)), returns_(std::move(returns)) {
    if (returns_->size() != KRReturns::kSize) {
        throw KRLocalMalformed("a page of returns of " + std::to_string(returns_->size()) + " bytes");
    }
}

// Most connections lend few binaries or none, and a process may have hundreds of connections.
void KRLendings::addTickets() {
    constexpr std::size_t kFirst = 16;
    const std::size_t old = tickets_.size();
    const std::size_t count = std::min<std::size_t>(std::max(kFirst, 2 * old), KRReturns::kTickets);
    free_.reserve(count); // so that nothing fails while a ticket changes hands
    lent_.reserve(count);
    tickets_.resize(count);
    for (std::size_t number = count; number > old; --number) {
        free_.push_back(static_cast<std::uint32_t>(number - 1));
    }
}

KRBinary KRLendings::toShared(const KRBinary& binary) {
    if (pool_->find(binary.data(), binary.size())) {
        return binary;
    }
    collect(); // a slot that has just been returned is still in the cache
    // As far into a cache line as the original, which is faster to copy.
    const std::size_t shift = reinterpret_cast<std::uintptr_t>(binary.data()) % kCacheLine;
    const auto slot = pool_->allocate(shift + binary.size());
    if (!slot) {
        return {};
    }
    const boost::shared_ptr<unsigned char[]> copy(slot, slot.get() + shift);
    std::memcpy(copy.get(), binary.data(), binary.size());
    return {copy, binary.size()};
}

bool KRLendings::lend(const KRBinary& binary, KRLocalFrame& frame,
                      std::vector<std::shared_ptr<const KRSharedMemory>>& memories,
                      std::size_t mostMemories) {
    const auto place = pool_->find(binary.data(), binary.size());
    // A process that returns nothing can only take half of the pool from the others.
    const std::size_t limit = pool_->getLimit() / 2;
    if (*lentBytes_ + binary.size() > limit) {
        pool_->collect(); // also what has been returned through other sockets
    }
    std::vector<KRBinary> returned; // destroyed after the lock is released, as in all functions here
    const KRLock lock(mutex_);
    collectLocked(returned);
    if (!lie_.empty()) {
        throw KRLocalMalformed(lie_);
    }
    if (free_.empty()) {
        addTickets();
    }
    if (!place || closed_ || free_.empty()) {
        return false;
    }
    const bool isNew = !known_.contains(place->id);
    if (isNew && frame.memories.size() >= mostMemories) {
        return false;
    }
    const std::uint32_t number = free_.back();
    Ticket& ticket = tickets_[number];
    if (KRReturns::read(returns_->data(), number) != ticket.generation) {
        throw KRLocalMalformed("gave back a binary that it did not hold");
    }
    if (lentBytes_->fetch_add(binary.size()) + binary.size() > limit) {
        *lentBytes_ -= binary.size();
        return false;
    }
    if (isNew) {
        memories.push_back(place->memory);
        frame.memories.push_back({place->id, place->memory->size()});
        known_.insert(place->id);
    }
    free_.pop_back();
    lent_.push_back(number);
    ticket.binary = binary;
    ++ticket.generation;
    frame.binaries.push_back({place->id, number, ticket.generation, place->offset, binary.size()});
    return true;
}

void KRLendings::takeBack(const KRLocalFrame& frame) {
    std::vector<KRBinary> returned;
    const KRLock lock(mutex_);
    for (const KRLocalFrame::Binary& binary : frame.binaries) {
        const auto lent = std::find(lent_.begin(), lent_.end(), binary.ticket);
        if (binary.memory == 0 || lent == lent_.end()) { // not lent, or all has been taken back
            continue;
        }
        Ticket& ticket = tickets_[binary.ticket];
        *lentBytes_ -= ticket.binary.size();
        returned.push_back(std::move(ticket.binary));
        ticket.binary = {};
        --ticket.generation;
        free_.push_back(binary.ticket);
        lent_.erase(lent);
    }
    for (const KRLocalFrame::Memory& memory : frame.memories) {
        known_.erase(memory.id);
    }
}

void KRLendings::collectLocked(std::vector<KRBinary>& returned) {
    for (std::size_t i = 0; i < lent_.size();) {
        const std::uint32_t number = lent_[i];
        Ticket& ticket = tickets_[number];
        const std::uint32_t written = KRReturns::read(returns_->data(), number);
        if (written != ticket.generation) {
            if (written != ticket.generation - 1 && lie_.empty()) {
                lie_ = "gave back a binary that it did not hold";
            }
            ++i;
            continue;
        }
        *lentBytes_ -= ticket.binary.size();
        returned.push_back(std::move(ticket.binary));
        ticket.binary = {};
        free_.push_back(number);
        lent_[i] = lent_.back();
        lent_.pop_back();
    }
}

void KRLendings::takeAll(std::vector<KRBinary>& returned) {
    for (const std::uint32_t number : lent_) {
        *lentBytes_ -= tickets_[number].binary.size();
        returned.push_back(std::move(tickets_[number].binary));
    }
    lent_.clear();
}

std::size_t KRLendings::collect() {
    std::vector<KRBinary> returned;
    const KRLock lock(mutex_);
    collectLocked(returned);
    if (holder_ > 0) {
        watchHolder(returned);
    }
    if (process_ && !lent_.empty()) {
        pollfd ended{process_.get(), POLLIN, 0};
        if (::poll(&ended, 1, 0) == 1) {
            takeAll(returned);
        }
    }
    return lent_.size();
}

std::size_t KRLendings::getCount() const {
    const KRLock lock(mutex_);
    return lent_.size();
}

bool KRLendings::isClosed() const {
    const KRLock lock(mutex_);
    return closed_;
}

void KRLendings::check() const {
    const KRLock lock(mutex_);
    if (!lie_.empty()) {
        throw KRLocalMalformed(lie_);
    }
}

void KRLendings::forget(const std::vector<std::uint32_t>& ids) {
    const KRLock lock(mutex_);
    for (const std::uint32_t id : ids) {
        if (known_.erase(id) > 0) {
            forgotten_.push_back(id);
        }
    }
}

std::vector<std::uint32_t> KRLendings::takeForgotten() {
    const KRLock lock(mutex_);
    const std::size_t count = std::min(forgotten_.size(), KRLocalFrame::kMaxForgotten);
    std::vector<std::uint32_t> taken(forgotten_.end() - static_cast<std::ptrdiff_t>(count), forgotten_.end());
    forgotten_.resize(forgotten_.size() - count);
    return taken;
}

void KRLendings::returnForgotten(const std::vector<std::uint32_t>& ids) {
    const KRLock lock(mutex_);
    forgotten_.insert(forgotten_.end(), ids.begin(), ids.end());
}

bool KRLendings::close(pid_t process) noexcept {
    std::vector<KRBinary> returned;
    const KRLock lock(mutex_);
    const bool again = closed_;
    closed_ = true;
    collectLocked(returned);
    if (process == 0) {
        takeAll(returned);
    } else {
        holder_ = process;
        watchHolder(returned);
    }
    return !again && !lent_.empty();
}

void KRLendings::watchHolder(std::vector<KRBinary>& returned) {
    if (process_ || lent_.empty()) {
        return;
    }
    process_ = KRDescriptor(static_cast<int>(syscall(SYS_pidfd_open, holder_, 0)));
    if (!process_ && errno != EMFILE && errno != ENFILE && errno != ENOMEM) { // otherwise later
        takeAll(returned); // it has ended, or its end cannot be observed
    }
}

} // namespace KR
