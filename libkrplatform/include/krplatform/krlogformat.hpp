#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krlog.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace KR {

/// Format of log lines on standard error.
enum class KRLogFormat {
    Text,   ///< "[2026-11-22 12:34:56.789] info krdds: ...": local time; coloured on a terminal
    Json,   ///< {"time":"2026-11-22T12:34:56.789Z","level":"info","category":"krdds","message":"..."}
    Journal ///< "<6>krdds: ...", as systemd's journal takes it, which adds the time
};

/// Selects the format. The environment variable KR_LOG_FORMAT (text, json or journal) sets it when the process starts.
/// Thread-safe.
KR_EXPORT void setLogFormat(KRLogFormat format) noexcept;
/// The current format. Thread-safe.
KR_EXPORT KRLogFormat getLogFormat() noexcept;

/// \throws std::invalid_argument it is not "text", "json" or "journal"
KR_EXPORT KRLogFormat parseLogFormat(std::string_view name);
/// The name that parseLogFormat() accepts.
KR_EXPORT const char* getLogFormatName(KRLogFormat format) noexcept;

/// Names of the levels, as setLogLevels() takes them, in the order of KRLogLevel.
inline constexpr std::array kLogLevelNames = {"error", "warning", "info", "verbose"};
/// The name of a level; "error" for a number that is no level. Reentrant.
constexpr const char* getLogLevelName(KRLogLevel level) noexcept {
    const auto number = static_cast<std::size_t>(level);
    return kLogLevelNames[number < kLogLevelNames.size() ? number : 0];
}
/// \throws std::invalid_argument as setLogLevels() with this text would. Reentrant.
KR_EXPORT void checkLogLevels(std::string_view levels);

/// A record as a line without its end and without colour, escaped as by escapeText(). Reentrant.
KR_EXPORT std::string formatLogRecord(const KRLogRecord& record, KRLogFormat format);

/// Records that were printed, or lost because standard error was blocked.
struct KRLogExcerpt {
    std::string now;                  ///< marks this position
    std::uint64_t lost = 0;           ///< records since the earlier position that are no longer stored
    std::vector<KRLogRecord> records; ///< in the order in which they were logged
};

/// The records since an earlier call. A process stores the newest 256 KiB. Every module answers
/// getLogRecords(string since) with an array [now, lost, [[level, category, message, thread, seconds, microseconds], ...]].
/// \param since  `now` of that call; empty, or from another process: all stored records. Thread-safe.
KR_EXPORT KRLogExcerpt getLogRecords(const std::string& since);

} // namespace KR
