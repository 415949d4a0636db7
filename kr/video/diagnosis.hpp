#pragma once

#include "tool/progress.hpp"

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KR::tool {

/// A problem of a recording.
struct Problem {
    std::uint64_t offset; ///< in the file, bytes
    std::optional<std::uint64_t> frame;
    std::optional<std::size_t> stream;
    std::string text;
};

/// Finds all problems of a recording, in the order of the file. Reads the beginning of each chunk.
/// \param progress  advances with the frames
/// \throws std::runtime_error it cannot be read
std::vector<Problem> diagnose(KROxvFile& recording, Progress& progress);

/// Why KRVideo does not open a file with such a stream; empty if it does.
std::string explainUnreadable(const KROxvStream& stream);

/// Reads the time stamps of the complete frames of a stream.
std::vector<std::int64_t> readTimeStamps(KROxvFile& recording, std::size_t stream, Progress& progress);

} // namespace KR::tool
