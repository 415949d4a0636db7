#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace KR::tool {

/// Keeps the members of an object in the order in which they were added.
using Json = nlohmann::ordered_json;

/// JSON text without control characters, C1 included: safe to print on a terminal. Bytes that are not UTF-8 become
/// U+FFFD.
/// \param indent  spaces per level; -1: everything on one line
std::string formatJson(const Json& value, int indent = -1);

/// Writes the value to standard output, indented, with a line end.
void printJson(const Json& value);

/// Writes names to standard output: a line each with control characters escaped, or a JSON array.
void printNames(const std::vector<std::string>& names, bool asJson);

} // namespace KR::tool
