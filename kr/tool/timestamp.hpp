#pragma once

#include <cstdint>
#include <string>

namespace KR::tool {

/// Formats the time stamp of an image for people: "2017-07-14 02:40:00.123456 UTC"; "not set" for -1; the number alone
/// outside of years 0 to 9999.
/// \param timeStamp  microseconds since the Unix epoch
std::string formatTimeStamp(std::int64_t timeStamp);

/// Formats how long ago a time was, in at most 7 characters for 27 years: "250 ms", "7.5 s", "42 s", "12 min", "5 h",
/// "12 d". It has a minus for a time in the future: the clock that told it is ahead of this machine's.
/// \param timeStamp  microseconds since the Unix epoch
/// \param now        the same; by default the current time
std::string formatAge(std::int64_t timeStamp, std::int64_t now);
std::string formatAge(std::int64_t timeStamp);

/// The time of the system's clock, in microseconds since the Unix epoch.
std::int64_t getTimeStamp();

} // namespace KR::tool
