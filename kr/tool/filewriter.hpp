#pragma once

#include "tool/file.hpp"

#include <cstdint>
#include <string>

namespace KR::tool {

/// Writes a file from its beginning and reports every error. Unbuffered: write large pieces.
class FileWriter {
public:
    /// Creates the file, or empties it.
    /// \throws std::runtime_error with the path and the reason, as do all operations
    explicit FileWriter(const std::string& path);

    void write(const void* bytes, std::uint64_t size);
    /// Flushes to the disk and closes: from here on the file survives a crash of the machine.
    void close();

private:
    [[noreturn]] void fail() const;

    const std::string path_;
    File file_;
};

} // namespace KR::tool
