#pragma once

#include "tool/json.hpp"

#include <krplatform/krvalue.hpp>

#include <string>

namespace KR::tool {

/// Converts a value to JSON: an invalid one is null, a binary is {"base64": "..."}, the others map one to one.
Json toJson(const KRValue& value);

/// Converts JSON to a value. true and false are 1 and 0; a whole number is an int, any other a float.
/// \throws UsageError a number that does not fit an int or a float of 32 bits; arrays nested more than 64 deep; an object
/// other than {"base64": "..."}
KRValue toValue(const Json& json);

/// Reads a value from an argument of the command line. A word that is not JSON is a string, so that names need no
/// quotes beyond those of the shell.
/// \throws UsageError as above; the text begins like JSON (bracket, quote, digit) but is not
KRValue readValue(const std::string& argument);

} // namespace KR::tool
