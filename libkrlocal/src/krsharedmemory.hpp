#pragma once

#include "krdescriptor.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace KR {

/// Memory of this process that others can map read-only: a memfd, which the kernel frees with its last mapping.
/// Its size is sealed, and no other process can ever map it for writing.
class KRSharedMemory {
public:
    /// Filled with zeros; pages are allocated when touched.
    /// \param name  shown in /proc \throws std::system_error
    explicit KRSharedMemory(std::size_t size, const std::string& name = "krvision");
    ~KRSharedMemory();
    KRSharedMemory(const KRSharedMemory&) = delete;
    KRSharedMemory& operator=(const KRSharedMemory&) = delete;

    unsigned char* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    int getDescriptor() const noexcept { return descriptor_.get(); }

private:
    const std::size_t size_;
    const KRDescriptor descriptor_;
    unsigned char* data_ = nullptr;
};

/// Checks a descriptor of such memory from another process.
/// \throws KRLocalMalformed not a memfd with the required seals, or of another size
void checkForeignMemory(const KRDescriptor& descriptor, std::size_t size);

/// Such memory of another process, read-only. That process can change the bytes at any time.
class KRForeignMemory {
public:
    /// \throws KRLocalMalformed not a memfd with the required seals, or of another size
    KRForeignMemory(const KRDescriptor& descriptor, std::size_t size);
    ~KRForeignMemory();
    KRForeignMemory(const KRForeignMemory&) = delete;
    KRForeignMemory& operator=(const KRForeignMemory&) = delete;

    const unsigned char* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }

private:
    const std::size_t size_;
    const unsigned char* data_ = nullptr;
};

/// The page on which the receiver of binaries marks those it has released: a generation per ticket.
struct KRReturns {
    static constexpr std::size_t kTickets = 1024;
    static constexpr std::size_t kSize = kTickets * sizeof(std::uint32_t);

    static std::uint32_t read(const unsigned char* page, std::uint32_t ticket) noexcept {
        return __atomic_load_n(reinterpret_cast<const std::uint32_t*>(page) + ticket, __ATOMIC_ACQUIRE);
    }
    static void write(unsigned char* page, std::uint32_t ticket, std::uint32_t generation) noexcept {
        __atomic_store_n(reinterpret_cast<std::uint32_t*>(page) + ticket, generation, __ATOMIC_RELEASE);
    }
};

} // namespace KR
