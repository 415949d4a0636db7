#pragma once

#include "tool/arguments.hpp"

#include <string>

namespace KR::tool {

/// The code of a name: luma, yuv422, rgb, bgr or bgrx, in any case. \throws UsageError another name
int parseColorSpace(const std::string& name);

/// "luma, yuv422, rgb, bgr, bgrx"
std::string listColorSpaces();

/// Adds the option --color-space. \param what  the help, before the names
Argument declareColorSpace(Arguments& arguments, std::string& name, const std::string& what);

} // namespace KR::tool
