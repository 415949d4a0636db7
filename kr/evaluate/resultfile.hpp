#pragma once

#include "evaluate/result.hpp"

#include <cstdio>
#include <memory>
#include <string>

namespace KR::tool {

/// A result as a line of a .jsonl file, without the line end:
/// `{"frame":17,"time_stamp_usec":1500000000123456,"key":"KRMotion/Motion","value":[0.25]}`, with "event" in place of "key"
/// for an event.
std::string formatResult(const Result& result);

/// A result as it was read from such a line.
struct ReadResult {
    std::uint64_t frame = 0;
    bool isEvent = false;
    std::string name;
    Json value;
};
/// \throws std::invalid_argument it is not such a line; the text says why
ReadResult parseResult(const std::string& line);

/// Writes results to a .jsonl or .mcap file, as the extension of the path says. In an MCAP file, the log time of a value is the
/// time stamp of its image.
/// \throws std::runtime_error it cannot be written
std::unique_ptr<ResultSink> makeResultFile(const std::string& path);

} // namespace KR::tool
