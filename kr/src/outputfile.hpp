#pragma once

#include <string>

namespace KR::tool {

/// A file that a verb makes: written under another name beside the one it is to have, and given that once it is
/// complete. A verb that fails, or is interrupted, leaves what was there before. One at a time.
///
/// What is there and is no regular file, such as a device or a pipe, is written to directly.
class OutputFile {
public:
    /// \param path   what the file is to be called in the end; one that is there is replaced
    /// \param input  what the verb reads, which must be another file; "": nothing
    /// \throws std::runtime_error the two are the same file; `path` is a folder, or not in one
    OutputFile(const std::string& path, const std::string& input);
    /// Removes what has been written, unless it was committed.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Where to write to; it has the extension of the final name.
    const std::string& getPath() const noexcept { return partial_; }
    /// Call it when the file is complete and closed.
    /// \throws std::runtime_error it cannot be given its name
    void commit();

private:
    std::string target_; // a symbolic link is followed: the file behind it is replaced
    std::string partial_;
};

/// What the file behind a path of OutputFile::getPath() is to be called, for those who tell of errors; any other path
/// as it is.
std::string getFinalName(const std::string& path);

/// The extension of a path in lower case, with the dot: ".png".
std::string getExtension(const std::string& path);

} // namespace KR::tool
