#pragma once

#include "krplatform/krexport.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// What is wrong with an oxv file, and how to keep what is intact. The functions are reentrant.
namespace KR {

class KROxvFile;

/// A problem of an oxv file.
struct KROxvProblem {
    std::uint64_t offset;               ///< in the file, bytes
    std::optional<std::uint64_t> frame; ///< nullopt: of the headers
    std::optional<std::size_t> stream;  ///< nullopt: of the whole file
    std::string text;                   ///< one line
};

/// Finds the problems of a file, in its order: damage, wrong counts, implausible time stamps, and streams that KRVideo
/// does not read. Frames beyond 4 GiB are none: see KROxvFile::countAddressableFrames(). Reads the header of each chunk.
/// \param onChunk  called after each chunk; may be empty
/// \throws std::runtime_error with the path: the file cannot be read
KR_EXPORT std::vector<KROxvProblem> findProblems(const KROxvFile& file,
                                                 const std::function<void()>& onChunk = {});

/// Copies complete frames to a new file with the right count, of the same version and with the same extra header. Uses
/// memory for 1 MiB. Waits for the disk.
/// \param count    number of frames from `first` on
/// \param stream   the one to copy; nullopt: all of them
/// \param path     of the file to write, which is created, or emptied
/// \param name     the file's name in errors, if not `path`, such as when `path` is temporary; "": `path`
/// \param onFrame  called after each frame; may be empty
/// \throws std::runtime_error as KROxvFile::requireFrames(); a frame cannot be read; "<name>: cannot be written:
/// <reason>"
/// \throws std::out_of_range no such stream
KR_EXPORT void copyFrames(const KROxvFile& file, std::uint64_t first, std::uint64_t count,
                          std::optional<std::size_t> stream, const std::string& path,
                          const std::string& name = "", const std::function<void()>& onFrame = {});

} // namespace KR
