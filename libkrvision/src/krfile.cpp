#include "krfile.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

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

std::uint64_t KRFile::openRegular(const std::string& path) {
    close();
    const auto fail = [&](const char* reason) {
        throw std::runtime_error(path + ": cannot be read: " + reason);
    };
    descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // regular files ignore O_NONBLOCK
    struct stat status;
    if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0) {
        fail(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        fail(S_ISDIR(status.st_mode) ? std::strerror(EISDIR) : "not a regular file");
    }
    return static_cast<std::uint64_t>(status.st_size);
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

bool KRFile::close() noexcept {
    if (descriptor_ < 0) {
        return true;
    }
    const int closed = ::close(descriptor_);
    descriptor_ = -1;
    return closed == 0;
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

bool KRFile::append(const void* first, std::size_t firstSize, const void* second, std::size_t secondSize) {
    // writev() only reads these, but its parameter is not const.
    std::array<iovec, 2> parts = {
        {{const_cast<void*>(first), firstSize}, {const_cast<void*>(second), secondSize}}};
    while (parts[0].iov_len + parts[1].iov_len > 0) {
        const ssize_t written = ::writev(descriptor_, parts.data(), static_cast<int>(parts.size()));
        if (written <= 0) {
            if (written < 0 && errno == EINTR) {
                continue;
            }
            return false;
        }
        std::size_t done = static_cast<std::size_t>(written);
        for (iovec& part : parts) {
            const std::size_t taken = std::min(done, part.iov_len);
            part.iov_base = static_cast<char*>(part.iov_base) + taken;
            part.iov_len -= taken;
            done -= taken;
        }
    }
    return true;
}

bool KRFile::writeAt(const void* from, std::size_t size, std::uint64_t offset) {
    ssize_t written = 0;
    do { // a file takes a few bytes all at once or not at all
        written = ::pwrite(descriptor_, from, size, static_cast<off_t>(offset));
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(size);
}

bool KRFile::truncate(std::uint64_t size) {
    const auto end = static_cast<off_t>(size);
    return ::ftruncate(descriptor_, end) == 0 && ::lseek(descriptor_, end, SEEK_SET) == end;
}

bool KRFile::sync() {
    return ::fsync(descriptor_) == 0 || errno == EINVAL || errno == ENOTSUP;
}

} // namespace KR
