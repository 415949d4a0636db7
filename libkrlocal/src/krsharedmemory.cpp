#include "krsharedmemory.hpp"

#include "krlocalframe.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

namespace KR {

namespace {

#ifndef F_SEAL_FUTURE_WRITE
constexpr int F_SEAL_FUTURE_WRITE = 0x0010; // Linux 5.1
#endif
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

KRDescriptor create(std::size_t size, const std::string& name) {
    KRDescriptor descriptor(memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!descriptor) {
        fail("memfd_create");
    }
    if (ftruncate(descriptor.get(), static_cast<off_t>(size)) != 0) {
        fail("ftruncate");
    }
    return descriptor;
}

} // namespace

KRSharedMemory::KRSharedMemory(std::size_t size, const std::string& name)
    : size_(size), descriptor_(create(size, name)) {
    void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_.get(), 0);
    if (mapped == MAP_FAILED) {
        fail("mmap");
    }
    data_ = static_cast<unsigned char*>(mapped);
    // After mapping: from now on it cannot be mapped for writing.
    if (fcntl(descriptor_.get(), F_ADD_SEALS, kSeals | F_SEAL_SEAL) != 0) {
        const int error = errno;
        munmap(mapped, size);
        errno = error;
        fail("F_ADD_SEALS");
    }
}

KRSharedMemory::~KRSharedMemory() {
    munmap(data_, size_);
}

void checkForeignMemory(const KRDescriptor& descriptor, std::size_t size) {
    const int seals = fcntl(descriptor.get(), F_GET_SEALS);
    if (seals < 0 || (seals & kSeals) != kSeals) {
        throw KRLocalMalformed(
            "a descriptor that is not a memfd sealed against changes of its size and writing");
    }
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0 || size == 0 ||
        static_cast<std::uint64_t>(status.st_size) != size) {
        throw KRLocalMalformed("shared memory that is not of the size announced");
    }
}

KRForeignMemory::KRForeignMemory(const KRDescriptor& descriptor, std::size_t size) : size_(size) {
    checkForeignMemory(descriptor, size);
    void* mapped = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor.get(), 0);
    if (mapped == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "shared memory of another process: mmap");
    }
    data_ = static_cast<const unsigned char*>(mapped);
}

KRForeignMemory::~KRForeignMemory() {
    munmap(const_cast<unsigned char*>(data_), size_);
}

} // namespace KR
