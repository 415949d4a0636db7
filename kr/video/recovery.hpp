#pragma once

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <string>

namespace KR::tool {

/// What came of a recovery.
struct Recovery {
    std::uint64_t kept = 0; ///< frames
    std::uint64_t lost = 0; ///< frames that there should be, but of which a part or all is missing
};

/// Writes a recording that has every complete frame of another one and opens, and reads it back to see that it does.
/// Needs memory for two frames. Shows its progress.
/// \param path  of the file to write
/// \throws std::runtime_error the recording has no frames to speak of, or streams that no reader opens; the file
/// cannot be written, or does not read as it should
Recovery recover(KROxvFile& recording, const std::string& path);

} // namespace KR::tool
