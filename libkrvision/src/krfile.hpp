#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace KR {

/// An open file, unbuffered: each operation transfers its bytes in one piece. Closed with the object. Only
/// openRegular() throws; the others return false and leave the reason in errno. Reentrant.
class KRFile {
public:
    KRFile() = default;
    ~KRFile() { close(); }
    KRFile(const KRFile&) = delete;
    KRFile& operator=(const KRFile&) = delete;

    /// Closes the file that is open and opens another one for reading.
    bool openToRead(const std::string& path);
    /// The same for a regular file only; never blocks on a pipe.
    /// \return its size in bytes
    /// \throws std::runtime_error "<path>: cannot be read: <reason>"
    std::uint64_t openRegular(const std::string& path);
    /// Creates or empties a file for writing and closes the one that was open.
    /// \return false on failure: the file that was open stays open
    bool openToWrite(const std::string& path);
    /// \return false after an error, such as one from an earlier write; the file is closed anyway
    bool close() noexcept;

    /// \return the number of bytes read: fewer at the end of the file, after an error, and if no file is open
    std::size_t readAt(void* to, std::size_t size, std::uint64_t offset) const;
    /// Whether the file is at least that long. One without a known size, such as a device, counts as long enough.
    bool reaches(std::uint64_t size) const;

    /// Appends two runs of bytes. After an error, a part of them may have been written.
    bool append(const void* first, std::size_t firstSize, const void* second, std::size_t secondSize);
    /// Overwrites a few bytes; append() still continues at the end.
    bool writeAt(const void* from, std::size_t size, std::uint64_t offset);
    /// Drops everything beyond the first `size` bytes; append() continues there.
    bool truncate(std::uint64_t size);
    /// Waits until everything is on the disk. True for pipes and devices, which store nothing.
    bool sync();

private:
    int descriptor_ = -1;
};

} // namespace KR
