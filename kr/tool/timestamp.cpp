#include "tool/timestamp.hpp"

#include <array>
#include <chrono>
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

} // namespace KR::tool
