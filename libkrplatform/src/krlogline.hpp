#pragma once

#include "krplatform/krlogformat.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace KR {

constexpr std::size_t kMaxLogCategory = 256; ///< bytes in a line
constexpr std::size_t kMaxLogText = 8192;    ///< the same

/// The contents of a log line; both texts are escaped.
struct KRLogLine {
    KRLogLevel level;
    std::string category;
    std::string text;
    std::chrono::system_clock::time_point time;
    std::uint64_t repetitions = 0; ///< since the line before; 0: it is new
};

/// The line without its end. Reentrant.
std::string formatLogLine(const KRLogLine& line, KRLogFormat format, bool colored);

} // namespace KR
