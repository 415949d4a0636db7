#include "tool/filewriter.hpp"

#include "tool/outputfile.hpp"

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

void FileWriter::close() {
    // A pipe or a device cannot be flushed to a disk.
    if ((::fsync(::fileno(file_.get())) != 0 && errno != EINVAL && errno != ENOTSUP) ||
        std::fclose(file_.release()) != 0) {
        fail();
    }
}

void FileWriter::fail() const {
    throw std::runtime_error(getFinalName(path_) + ": cannot be written: " + std::strerror(errno));
}

} // namespace KR::tool
