#pragma once

#include "tool/progress.hpp"

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace KR::tool {

/// Copies complete frames of a recording to a new one, chunk by chunk, with the right count.
/// \param count   number of frames from `first` on
/// \param stream  the one to copy; nullopt: all of them
/// \param path    of the file to write
/// \throws std::runtime_error one of the files cannot be read or written
void copyFrames(KROxvFile& recording, std::uint64_t first, std::uint64_t count,
                std::optional<std::size_t> stream, const std::string& path, Progress& progress);

} // namespace KR::tool
