#pragma once

#include "image/pictureconversion.hpp"

#include <krvision/krimage.hpp>

#include <string>

namespace KR::tool {

/// \throws UsageError writeImage() does not support the extension
void requireImageExtension(const std::string& path);

/// Writes an image in the format of the path's extension: .oxi, .ppm, .png or .jpg.
/// \param path    also that of an OutputFile
/// \param colors  of a picture
/// \throws std::runtime_error with the final path
void writeImage(const KRImage& image, const std::string& path, Colors colors);

} // namespace KR::tool
