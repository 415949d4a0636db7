#include "filewriter.hpp"

#include "outputfile.hpp"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <unistd.h>

namespace KR::tool {

FileWriter::FileWriter(const std::string& path) : path_(path), file_(std::fopen(path.c_str(), "wb")) {
    if (!file_) {
        fail();
    }
    std::setvbuf(file_.get(), nullptr, _IONBF, 0);
}

void FileWriter::write(const void* bytes, std::uint64_t size) {
    if (std::fwrite(bytes, 1, size, file_.get()) != size) {
        fail();
    }
}

void FileWriter::writeAt(const void* bytes, std::uint64_t size, std::uint64_t offset) {
    if (::pwrite(::fileno(file_.get()), bytes, size, static_cast<off_t>(offset)) !=
        static_cast<ssize_t>(size)) {
        fail();
    }
}

void FileWriter::cut(std::uint64_t size) {
    if (::ftruncate(::fileno(file_.get()), static_cast<off_t>(size)) != 0) {
        fail();
    }
}

void FileWriter::close() {
    // A pipe or a device has nothing to be kept.
    if ((::fsync(::fileno(file_.get())) != 0 && errno != EINVAL && errno != ENOTSUP) ||
        std::fclose(file_.release()) != 0) {
        fail();
    }
}

void FileWriter::fail() const {
    throw std::runtime_error(getFinalName(path_) + ": cannot be written: " + std::strerror(errno));
}

} // namespace KR::tool
