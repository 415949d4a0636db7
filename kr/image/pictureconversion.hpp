#pragma once

#include "picture.hpp"

#include <krvision/krimage.hpp>

namespace KR::tool {

/// The image in colours that can be seen, by the library's conversions where it is YUV422 or luma.
/// \param image  its layers must be those of its colour space, and its buffer must hold its pixels
/// \throws std::runtime_error what its colour space means is not known; the text lists those that are
Picture makePicture(const KRImage& image);

/// An image of the picture's size without time stamp, camera 0 and angles 0, which owns its pixels.
/// \throws std::runtime_error an odd width for YUV422; a colour space whose meaning is not known
KRImage makeImage(const Picture& picture, int colorSpace);

} // namespace KR::tool
