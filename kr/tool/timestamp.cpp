#include "tool/timestamp.hpp"

#include "tool/format.hpp"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace KR::tool {

std::string formatTimeStamp(std::int64_t timeStamp) {
    if (timeStamp == -1) {
        return "not set";
    }
    const std::chrono::microseconds time(timeStamp);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const std::time_t whole = seconds.count();
    std::tm calendar = {};
    std::array<char, 80> text = {};
    if (::gmtime_r(&whole, &calendar) == nullptr || calendar.tm_year < -1900 ||
        calendar.tm_year > 9999 - 1900) {
        return std::to_string(timeStamp) + " us";
    }
    std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d.%06d UTC", calendar.tm_year + 1900,
                  calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec,
                  static_cast<int>((time - seconds).count()));
    return text.data();
}

std::string formatAge(std::int64_t timeStamp, std::int64_t now) {
    const double seconds = std::abs(static_cast<double>(now - timeStamp)) / 1e6;
    const char* const sign = timeStamp > now ? "-" : "";
    constexpr double kMinute = 60;
    constexpr double kHour = 60 * kMinute;
    constexpr double kDay = 24 * kHour;
    // Each unit ends where rounding would show the number at which the next one begins.
    if (seconds < 0.9995) {
        return format("%s%.0f ms", sign, seconds * 1000);
    }
    if (seconds < 9.95) {
        return format("%s%.1f s", sign, seconds);
    }
    if (seconds < 99.5) {
        return format("%s%.0f s", sign, seconds);
    }
    if (seconds < 99.5 * kMinute) {
        return format("%s%.0f min", sign, seconds / kMinute);
    }
    if (seconds < 47.5 * kHour) {
        return format("%s%.0f h", sign, seconds / kHour);
    }
    return format("%s%.0f d", sign, seconds / kDay);
}

std::string formatAge(std::int64_t timeStamp) {
    return formatAge(timeStamp, getTimeStamp());
}

std::int64_t getTimeStamp() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace KR::tool
