#include "krfile.hpp"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace KR {

bool KRFile::openToRead(const std::string& path) {
    close();
    descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    return descriptor_ >= 0;
}

bool KRFile::openToWrite(const std::string& path) {
    const int opened = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (opened < 0) {
        return false;
    }
    close();
    descriptor_ = opened;
    return true;
}

void KRFile::close() noexcept {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
        descriptor_ = -1;
    }
}

std::size_t KRFile::readAt(void* to, std::size_t size, std::uint64_t offset) const {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = ::pread(descriptor_, static_cast<char*>(to) + done, size - done,
                                    static_cast<off_t>(offset + done));
        if (got > 0) {
            done += static_cast<std::size_t>(got);
        } else if (got == 0 || errno != EINTR) {
            break;
        }
    }
    return done;
}

bool KRFile::reaches(std::uint64_t size) const {
    struct stat status;
    return ::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode) ||
           static_cast<std::uint64_t>(status.st_size) >= size;
}

void KRFile::append(const void* first, std::size_t firstSize, const void* second, std::size_t secondSize) {
    // writev() takes what it only reads as not const.
    std::array<iovec, 2> parts = {
        {{const_cast<void*>(first), firstSize}, {const_cast<void*>(second), secondSize}}};
    while (parts[0].iov_len + parts[1].iov_len > 0) {
        const ssize_t written = ::writev(descriptor_, parts.data(), static_cast<int>(parts.size()));
        if (written <= 0) {
            if (written < 0 && errno == EINTR) {
                continue;
            }
            return;
        }
        std::size_t done = static_cast<std::size_t>(written);
        for (iovec& part : parts) {
            const std::size_t taken = std::min(done, part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + taken;
            part.iov_len -= taken;
            done -= taken;
        }
    }
}

void KRFile::writeAt(const void* from, std::size_t size, std::uint64_t offset) {
    // A few bytes: a file takes all of them or none.
    while (::pwrite(descriptor_, from, size, static_cast<off_t>(offset)) < 0 && errno == EINTR) {
    }
}

} // namespace KR
