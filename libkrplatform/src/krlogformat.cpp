#include "krplatform/krlogformat.hpp"

#include "krplatform/krtext.hpp"

#include "krloglevels.hpp"
#include "krlogline.hpp"

#include <array>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace KR {

namespace {

constexpr std::array kFormats{KRLogFormat::Text, KRLogFormat::Json, KRLogFormat::Journal};

/// \param form  of date and time, for snprintf
std::string formatTime(const char* form, const std::tm& parts, std::chrono::system_clock::time_point time) {
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), form, parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                  parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(milliseconds));
    return text.data();
}

std::string formatLocalTime(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    return formatTime("[%04d-%02d-%02d %02d:%02d:%02d.%03d] ", parts, time);
}

std::string formatUtc(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    return formatTime("%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts, time);
}

// What escapeText() returns has no control characters.
std::string quote(std::string_view text) {
    std::string quoted = "\"";
    for (const char each : text) {
        if (each == '"' || each == '\\') {
            quoted += '\\';
        }
        quoted += each;
    }
    return quoted + "\"";
}

// As in sd-daemon(3), those of syslog.
char getPriority(KRLogLevel level) noexcept {
    switch (level) {
    case KRLogLevel::Error:
        return '3';
    case KRLogLevel::Warning:
        return '4';
    case KRLogLevel::Info:
        return '6';
    case KRLogLevel::Verbose:
        return '7';
    }
    return '3';
}

const char* getColor(KRLogLevel level) noexcept {
    switch (level) {
    case KRLogLevel::Error:
        return "\033[31m\033[1m";
    case KRLogLevel::Warning:
        return "\033[33m\033[1m";
    case KRLogLevel::Info:
        return "\033[32m";
    case KRLogLevel::Verbose:
        return "\033[36m";
    }
    return "";
}

} // namespace

std::string formatLogLine(const KRLogLine& line, KRLogFormat format, bool colored) {
    std::string text = line.text;
    if (line.repetitions > 0 && format != KRLogFormat::Json) {
        text += " (said " + std::to_string(line.repetitions) + (line.repetitions == 1 ? " time" : " times") +
                " more)";
    }
    switch (format) {
    case KRLogFormat::Text:
        break;
    case KRLogFormat::Json:
        return R"({"time":")" + formatUtc(line.time) + R"(","level":")" + getLogLevelName(line.level) +
               R"(","category":)" + quote(line.category) + R"(,"message":)" + quote(text) +
               (line.repetitions > 0 ? R"(,"repetitions":)" + std::to_string(line.repetitions) : "") + "}";
    case KRLogFormat::Journal:
        return std::string("<") + getPriority(line.level) + ">" + line.category + ": " + text;
    }
    return formatLocalTime(line.time) + (colored ? getColor(line.level) : "") + getLogLevelName(line.level) +
           " " + line.category + ": " + text + (colored ? "\033[m" : "");
}

const char* getLogFormatName(KRLogFormat format) noexcept {
    switch (format) {
    case KRLogFormat::Text:
        return "text";
    case KRLogFormat::Json:
        return "json";
    case KRLogFormat::Journal:
        return "journal";
    }
    return "text";
}

KRLogFormat parseLogFormat(std::string_view name) {
    for (const KRLogFormat format : kFormats) {
        if (name == getLogFormatName(format)) {
            return format;
        }
    }
    throw std::invalid_argument("\"" + escapeText(name, 100) +
                                "\" is not a form of the log; it is text, json or journal");
}

std::string formatLogRecord(const KRLogRecord& record, KRLogFormat format) {
    return formatLogLine({record.level, escapeText(record.category, kMaxLogCategory),
                          escapeText(record.message, kMaxLogText), record.time},
                         format, false);
}

} // namespace KR
