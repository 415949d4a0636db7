#pragma once

#include "krplatform/krexport.hpp"
#include "krvision/krimage.hpp"

#include <cstdio>

namespace KR {

/// Writes an image as KRImage::savePPM does, to a file that is open for writing and stays open.
/// \return 1, or the code -2 to -5
KR_EXPORT int writePpm(const KRImage& image, std::FILE* file);

} // namespace KR
