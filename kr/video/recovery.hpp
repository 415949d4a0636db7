#pragma once

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <string>

namespace KR::tool {

/// The result of a recovery.
struct Recovery {
    std::uint64_t kept = 0; ///< frames
    std::uint64_t lost = 0; ///< frames that are missing or cut
};

/// Copies every complete frame of a recording to a new one that opens, and reads that back to verify it. Uses memory for
/// two frames. Shows its progress.
/// \param path  of the file to write
/// \throws std::runtime_error the frames cannot be located, or KRVideo does not open such streams; the new file cannot
/// be written, or fails the verification
Recovery recover(KROxvFile& recording, const std::string& path);

} // namespace KR::tool
