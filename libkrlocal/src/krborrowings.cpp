#include "krborrowings.hpp"

namespace KR {

void KRBorrowings::add(const KRLocalFrame::Memory& memory, const KRDescriptor& descriptor) {
    if (memory.id == 0 || memories_.contains(memory.id)) {
        throw KRLocalMalformed("shared memory with the id " + std::to_string(memory.id) + ", which is taken");
    }
    if (memories_.size() == kMaxMemories || memory.size > kMaxMapped - mapped_) {
        throw KRLocalMalformed("more shared memory than one process may have");
    }
    memories_.emplace(memory.id, std::make_shared<const KRForeignMemory>(descriptor, memory.size));
    mapped_ += memory.size;
}

void KRBorrowings::forget(std::uint32_t id) {
    const auto found = memories_.find(id);
    if (found == memories_.end()) {
        throw KRLocalMalformed("the end of shared memory " + std::to_string(id) +
                               ", which it has not announced");
    }
    mapped_ -= found->second->size();
    memories_.erase(found);
}

KRBinary KRBorrowings::take(const KRLocalFrame::Binary& binary) const {
    const auto found = memories_.find(binary.memory);
    if (found == memories_.end()) {
        throw KRLocalMalformed("a binary in shared memory " + std::to_string(binary.memory) +
                               ", which it has not announced");
    }
    const std::shared_ptr<const KRForeignMemory>& memory = found->second;
    if (binary.offset > memory->size() || binary.size > memory->size() - binary.offset) {
        throw KRLocalMalformed("a binary of " + std::to_string(binary.size) + " bytes at " +
                               std::to_string(binary.offset) + " in shared memory of " +
                               std::to_string(memory->size()));
    }
    if (binary.ticket >= KRReturns::kTickets) {
        throw KRLocalMalformed("ticket " + std::to_string(binary.ticket));
    }
    return {boost::shared_ptr<const unsigned char[]>(
                memory->data() + binary.offset,
                [memory, returns = returns_, ticket = binary.ticket, generation = binary.generation](
                    const unsigned char*) { KRReturns::write(returns->data(), ticket, generation); }),
            static_cast<std::size_t>(binary.size)};
}

} // namespace KR
