#pragma once

#include "krplatform/krexport.hpp"
#include "krplatform/krvalue.hpp"

#include <nlohmann/json.hpp>

#include <string_view>

namespace KR {

/// A value as JSON: an invalid one is null, a binary {"base64": "..."}, the others map directly. A float that is
/// not finite becomes null when serialized.
/// Reentrant.
KR_EXPORT nlohmann::ordered_json toJson(const KRValue& value);

/// The value of a JSON document. true and false are 1 and 0; a whole number is an int, any other a float.
/// \throws std::invalid_argument a number that fits neither an int nor a float; arrays nested more than 64 deep; an
/// object other than {"base64": "..."}
/// Reentrant.
KR_EXPORT KRValue toValue(const nlohmann::ordered_json& json);

/// RFC 4648, section 4. \throws std::invalid_argument it is not base64
KR_EXPORT KRBinary decodeBase64(std::string_view text);
/// Bytes as text: base64 with padding, RFC 4648.
KR_EXPORT std::string encodeBase64(const KRBinary& bytes);

} // namespace KR
