#pragma once

#include "krlocalframe.hpp"
#include "krsharedmemory.hpp"

#include <krplatform/krvalue.hpp>

#include <cstdint>
#include <map>
#include <memory>

namespace KR {

/// The shared memory of another process as this one has it. Reentrant; the binaries that it makes are independent of it.
class KRBorrowings {
public:
    static constexpr std::size_t kMaxMemories = 4096;
    static constexpr std::size_t kMaxMapped = std::size_t{16} << 30; ///< bytes of address space

    /// \throws std::system_error
    KRBorrowings() : returns_(std::make_shared<KRSharedMemory>(KRReturns::kSize)) {}

    /// The page to give binaries back on, for the other process to read.
    const KRSharedMemory& getReturns() const noexcept { return *returns_; }

    /// \throws KRLocalMalformed it has that id already, or is not such memory, or there is too much of it
    /// \throws std::system_error it cannot be mapped
    void add(const KRLocalFrame::Memory& memory, const KRDescriptor& descriptor);
    /// The other uses it no more. Binaries in it keep it. \throws KRLocalMalformed there is no such memory
    void forget(std::uint32_t id);
    /// The binary in place; given back with its last copy. \throws KRLocalMalformed it is in no memory
    KRBinary take(const KRLocalFrame::Binary& binary) const;

    bool isEmpty() const noexcept { return memories_.empty(); }

private:
    const std::shared_ptr<KRSharedMemory> returns_;
    std::map<std::uint32_t, std::shared_ptr<const KRForeignMemory>> memories_; // by id
    std::size_t mapped_ = 0;
};

} // namespace KR
