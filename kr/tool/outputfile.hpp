#pragma once

#include <string>

namespace KR::tool {

/// A file that a verb creates: written under a temporary name in the same folder and renamed once it is complete. A verb
/// that fails or is interrupted leaves an existing file unchanged. One object at a time.
///
/// An existing file is replaced if the user may write to it, and the new one gets its permissions. Anything but a
/// regular file, such as a device or a pipe, is written to directly.
class OutputFile {
public:
    /// \param path   final name
    /// \param input  the file that the verb reads, which must be another one; "": none
    /// \throws std::runtime_error the two are the same file; `path` is a folder or a file that may not be written, or
    /// its folder does not exist
    OutputFile(const std::string& path, const std::string& input);
    /// Removes what has been written, unless it was committed.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// Where to write to; it has the extension of the final name.
    const std::string& getPath() const noexcept { return partial_; }
    /// Gives the file its final name. Call it when the file is complete and closed.
    /// \throws std::runtime_error the file cannot be renamed
    void commit();

private:
    std::string target_; // what a symbolic link points to
    std::string partial_;
};

/// The final name of a file by the path that OutputFile::getPath() gives, for error messages; any other path unchanged.
std::string getFinalName(const std::string& path);

/// The extension of a path in lower case, with the dot: ".png".
std::string getExtension(const std::string& path);

} // namespace KR::tool
