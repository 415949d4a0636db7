#pragma once

#include "tool/json.hpp"

#include <krinterop/krjson.hpp>

#include <string>

namespace KR::tool {

using KR::toJson;

/// KR::toValue() for JSON that the user has typed. \throws UsageError in place of std::invalid_argument
KRValue toValue(const Json& json);

/// Reads a value from an argument of the command line. A word that is not JSON is a string, so that names need no
/// quotes beyond those of the shell.
/// \throws UsageError as above; the text begins like JSON (bracket, quote, digit) but is not
KRValue readValue(const std::string& argument);

} // namespace KR::tool
