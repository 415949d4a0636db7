#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <nlohmann/json.hpp>

#include <string_view>

namespace KR {

/// A value as JSON: an invalid one is null, a binary {"base64": "..."}, the others are what they look like. A float that is
/// not finite becomes null when it is written out.
/// Reentrant.
KR_EXPORT nlohmann::ordered_json toJson(const KRValue& value);

/// The value that JSON stands for. true and false are 1 and 0; a whole number is an int, any other a float.
/// \throws std::invalid_argument a number that an int or a float does not hold; arrays in arrays, more than 64 deep; an
/// object other than {"base64": "..."}
/// Reentrant.
KR_EXPORT KRValue toValue(const nlohmann::ordered_json& json);

/// RFC 4648, section 4. \throws std::invalid_argument it is not base64
KR_EXPORT KRBinary decodeBase64(std::string_view text);
/// Bytes as text: base64 with padding, RFC 4648.
KR_EXPORT std::string encodeBase64(const KRBinary& bytes);

} // namespace KR
