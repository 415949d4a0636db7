#pragma once

#include "tool/progress.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace KR::tool {

/// Finds all problems of an MCAP file, a sentence each: damage, images that are not supported, time stamps of images that go
/// back. Reads all of it. \throws std::runtime_error it cannot be read
std::vector<std::string> diagnoseMcap(const std::string& path, Progress& progress);

/// The result of a recovery.
struct McapRecovery {
    std::uint64_t messages = 0; ///< that were kept
    std::uint64_t attachments = 0;
    std::vector<std::string> losses; ///< what could not be kept, a sentence each
};

/// Copies every readable message, attachment and metadata record of an MCAP file to a new one that is closed and has an index,
/// whatever their schemas, in the order of the file and with the compression of its first chunk.
/// \param out   of the file to write
/// \param name  of that file, in errors
/// \throws std::runtime_error one of the files cannot be read or written
McapRecovery recoverMcap(const std::string& in, const std::string& out, const std::string& name,
                         Progress& progress);

} // namespace KR::tool
