#pragma once

#include "image/picture.hpp"

#include <krvision/krimage.hpp>

namespace KR::tool {

/// Converts an image to RGB; YUV422 and luma by the conversions of the library.
/// \param image  with the layers of its colour space, and a buffer that holds its pixels
/// \throws std::runtime_error its colour space is not supported; the text lists those that are
Picture makePicture(const KRImage& image);

/// Makes an image of the picture's size, without time stamp, with camera 0 and angles 0. It owns its pixels.
/// \throws std::runtime_error an odd width for YUV422; a colour space that is not supported
KRImage makeImage(const Picture& picture, int colorSpace);

} // namespace KR::tool
