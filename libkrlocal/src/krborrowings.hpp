#pragma once

#include "krlocalframe.hpp"
#include "krsharedmemory.hpp"

#include <krplatform/krvalue.hpp>

#include <cstdint>
#include <map>
#include <memory>

namespace KR {

/// The shared memory of another process, mapped here. Reentrant; the binaries that it returns are independent of it.
class KRBorrowings {
public:
    static constexpr std::size_t kMaxMemories = 4096;
    static constexpr std::size_t kMaxMapped = std::size_t{16} << 30; ///< bytes of address space

    /// \throws std::system_error
    KRBorrowings() : returns_(std::make_shared<KRSharedMemory>(KRReturns::kSize)) {}

    /// The page for returning binaries, which the other process reads.
    const KRSharedMemory& getReturns() const noexcept { return *returns_; }

    /// \throws KRLocalMalformed the id is in use; it is not valid shared memory, or too much
    /// \throws std::system_error it cannot be mapped
    void add(const KRLocalFrame::Memory& memory, const KRDescriptor& descriptor);
    /// Forgets memory that the other has dropped. Binaries in it keep it mapped. \throws KRLocalMalformed unknown id
    void forget(std::uint32_t id);
    /// The binary in place; returned with its last copy. \throws KRLocalMalformed it is outside the memory
    KRBinary take(const KRLocalFrame::Binary& binary) const;

    bool isEmpty() const noexcept { return memories_.empty(); }

private:
    const std::shared_ptr<KRSharedMemory> returns_;
    std::map<std::uint32_t, std::shared_ptr<const KRForeignMemory>> memories_; // by id
    std::size_t mapped_ = 0;
};

} // namespace KR
