#pragma once

#include <cstdint>
#include <string>

namespace KR::tool {

/// Formats the time stamp of an image for people: "2017-07-14 02:40:00.123456 UTC"; "not set" for -1; the number alone
/// outside of years 0 to 9999.
/// \param timeStamp  microseconds since the Unix epoch
std::string formatTimeStamp(std::int64_t timeStamp);

} // namespace KR::tool
