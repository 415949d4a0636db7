#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

namespace KR::tool {

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
/// A file that is closed with the object, without reporting errors.
using File = std::unique_ptr<std::FILE, CloseFile>;

/// \param mode  as for std::fopen \throws std::runtime_error the reason, without the path
inline File openFile(const std::string& path, const char* mode) {
    File file(std::fopen(path.c_str(), mode));
    if (!file) {
        throw std::runtime_error(std::strerror(errno));
    }
    return file;
}

/// Closes a file that was written. \throws std::runtime_error the reason, without the path
inline void closeFile(File file) {
    if (std::fclose(file.release()) != 0) {
        throw std::runtime_error(std::strerror(errno));
    }
}

} // namespace KR::tool
