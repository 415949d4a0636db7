#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krlog.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace KR {

/// Form of the lines of the log on standard error.
enum class KRLogFormat {
    Text,   ///< "[2026-11-22 12:34:56.789] info krdds: ...": local time; coloured on a terminal
    Json,   ///< {"time":"2026-11-22T12:34:56.789Z","level":"info","category":"krdds","message":"..."}
    Journal ///< "<6>krdds: ...", as systemd's journal takes it, which adds the time
};

/// Chooses the form. The environment variable KR_LOG_FORMAT (text, json or journal) sets it when the process starts.
/// Thread-safe.
KR_EXPORT void setLogFormat(KRLogFormat format) noexcept;
/// The form that was chosen last. Thread-safe.
KR_EXPORT KRLogFormat getLogFormat() noexcept;

/// \throws std::invalid_argument it is not "text", "json" or "journal"
KR_EXPORT KRLogFormat parseLogFormat(std::string_view name);
/// As parseLogFormat() takes it.
KR_EXPORT const char* getLogFormatName(KRLogFormat format) noexcept;

/// A record as a line without its end and without colour, escaped as by escapeText(). Reentrant.
KR_EXPORT std::string formatLogRecord(const KRLogRecord& record, KRLogFormat format);

/// Records that were printed, or would have been if standard error had taken them.
struct KRLogExcerpt {
    std::string now;                  ///< stands for this look
    std::uint64_t lost = 0;           ///< records since the earlier look that are not kept any more
    std::vector<KRLogRecord> records; ///< in the order in which they were logged
};

/// The records since an earlier look. A process keeps 256 KiB of them, the newest ones. Every module answers
/// getLogRecords(string since) with an array [now, lost, [[level, category, message, thread, seconds, microseconds], ...]].
/// \param since  `now` of that look; empty, or of another process: all that are kept. Thread-safe.
KR_EXPORT KRLogExcerpt getLogRecords(const std::string& since);

} // namespace KR
