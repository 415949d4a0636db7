#pragma once

#include "json.hpp"

#include <krplatform/krvalue.hpp>

#include <string>

namespace KR::tool {

/// A value as JSON: an invalid one is null, a binary {"base64": "..."}, the others are what they look like.
Json toJson(const KRValue& value);

/// The value that JSON stands for. true and false are 1 and 0; a whole number is an int, any other a float.
/// \throws UsageError a number that an int or a float does not hold; arrays in arrays, more than 64 deep; an object other
/// than {"base64": "..."}
KRValue toValue(const Json& json);

/// The same from an argument of the command line. A word that is no JSON is a string, so that names need no quotes
/// but what the shell takes.
/// \throws UsageError also something that begins like JSON and is none: a bracket, a quote, a digit
KRValue readValue(const std::string& argument);

} // namespace KR::tool
