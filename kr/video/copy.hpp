#pragma once

#include "progress.hpp"

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace KR::tool {

/// Writes complete frames of a recording to another one, chunk by chunk as they are, with a count that is right.
/// \param count   of the frames from `first` on
/// \param stream  the only one that is copied; nothing: all of them
/// \param path    of the file to write
/// \throws std::runtime_error one of the files cannot be read or written
void copyFrames(KROxvFile& recording, std::uint64_t first, std::uint64_t count,
                std::optional<std::size_t> stream, const std::string& path, Progress& progress);

} // namespace KR::tool
