#pragma once

#include "camera/krcapture.hpp"

#include <optional>

namespace KR {

class KRImage;

/// The layout of images of this geometry, without padding; nullopt if the camera service does not deliver such images.
std::optional<GstVideoInfo> findImageInfo(int width, int height, int colorSpace);

/// A capture of an image, taken now. Shares the image's pixels.
/// \param info  of findImageInfo() for the image's geometry
KRCapture makeCapture(const KRImage& image, const GstVideoInfo& info);

} // namespace KR
