#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace KR {

/// An open file of the operating system, without a buffer: each operation moves its bytes in one piece.
/// Closed with the object. Throws nothing. Reentrant.
class KRFile {
public:
    KRFile() = default;
    ~KRFile() { close(); }
    KRFile(const KRFile&) = delete;
    KRFile& operator=(const KRFile&) = delete;

    /// Closes what is open before, and opens a file to read. \return whether that is open now
    bool openToRead(const std::string& path);
    /// Creates a file, or empties one, to write; closes what was open before. \return false: what was open
    /// before still is
    bool openToWrite(const std::string& path);
    void close() noexcept;

    /// \return how many of the bytes have been read: fewer at the end of the file, after an error, and from a
    /// file that is not open
    std::size_t readAt(void* to, std::size_t size, std::uint64_t offset) const;
    /// Whether the file reaches up to there. One that does not tell its size, such as a device, does.
    bool reaches(std::uint64_t size) const;

    /// Appends one run of bytes and then another. Errors are not told, nor are those of writeAt().
    void append(const void* first, std::size_t firstSize, const void* second, std::size_t secondSize);
    void writeAt(const void* from, std::size_t size, std::uint64_t offset);

private:
    int descriptor_ = -1;
};

} // namespace KR
