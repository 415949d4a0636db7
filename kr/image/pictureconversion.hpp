#pragma once

#include "image/picture.hpp"

#include <krvision/krimage.hpp>

namespace KR::tool {

/// How YUV422 and luma become RGB and back.
enum class Colors {
    Standard,     ///< ITU-R BT.601, as the camera service converts and players show them
    AsModulesSee, ///< by the conversions of KRImage, which are off in strong colours by design
};

/// Converts an image to RGB.
/// \param image  with the layers of its colour space, and a buffer that holds its pixels
/// \throws std::runtime_error its colour space is not supported; the text lists those that are
Picture makePicture(const KRImage& image, Colors colors = Colors::Standard);

/// Makes an image of the picture's size, without time stamp, with camera 0 and angles 0. It owns its pixels.
/// \throws std::runtime_error an odd width for YUV422; a colour space that is not supported
KRImage makeImage(const Picture& picture, int colorSpace, Colors colors = Colors::Standard);

} // namespace KR::tool
