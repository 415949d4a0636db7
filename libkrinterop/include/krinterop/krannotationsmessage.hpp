#pragma once

#include "krplatform/krexport.hpp"
#include "krvision/krannotations.hpp"

#include <string>
#include <string_view>

/// Annotations in the form that viewers draw over images: `foxglove.ImageAnnotations` in JSON. Reentrant.
namespace KR {

inline constexpr const char* kAnnotationsSchemaName = "foxglove.ImageAnnotations"; ///< of the message

/// JSON schema of the messages.
KR_EXPORT std::string_view getAnnotationsSchema() noexcept;

/// Boxes and closed polylines become line loops, open ones line strips, points a list of points, labels and texts
/// texts. A label has identity and score of its box: "face #7 93%". Bytes that are not UTF-8 become U+FFFD.
/// \param width,height  of the image, pixels: coordinates of the message are in pixels
KR_EXPORT std::string encodeAnnotations(const KRAnnotations& annotations, int width, int height);

} // namespace KR
