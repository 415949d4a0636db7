#pragma once

#include <nlohmann/json.hpp>

#include <cstdio>

namespace KR::tool {

/// Keeps the members of an object in the order in which they were added.
using Json = nlohmann::ordered_json;

/// Writes the value to standard output, with a line end. Bytes that are not UTF-8 show as U+FFFD.
inline void printJson(const Json& value) {
    std::printf("%s\n", value.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

} // namespace KR::tool
