#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace KR::tool {

/// A file to write to from its beginning, of which every error is told. Without a buffer: write much at once.
class FileWriter {
public:
    /// Creates the file, or empties it.
    /// \throws std::runtime_error with the path and the reason, as all operations
    explicit FileWriter(const std::string& path);

    void write(const void* bytes, std::uint64_t size);
    /// Writes over what is there. The next write() goes on at the end all the same.
    void writeAt(const void* bytes, std::uint64_t size, std::uint64_t offset);
    /// Leaves the first bytes alone.
    void cut(std::uint64_t size);
    /// Only then the file is whole, whatever happens to the machine.
    void close();

private:
    struct CloseFile {
        void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    };
    [[noreturn]] void fail() const;

    const std::string path_;
    std::unique_ptr<std::FILE, CloseFile> file_;
};

} // namespace KR::tool
