#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

/// A file in memory.
class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size)
        : descriptor_(::memfd_create("fuzz", MFD_CLOEXEC)) {
        if (descriptor_ < 0 || ::write(descriptor_, data, size) != static_cast<ssize_t>(size)) {
            throw std::runtime_error("no file in memory");
        }
        path_ = "/proc/self/fd/" + std::to_string(descriptor_);
    }
    ~MemoryFile() { ::close(descriptor_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    const std::string& getPath() const { return path_; }

private:
    int descriptor_;
    std::string path_;
};
