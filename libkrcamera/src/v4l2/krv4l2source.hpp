#pragma once

#include "source/krsource.hpp"

#include <memory>

namespace KR {

/// A V4L2 device, with the controls that it has.
std::unique_ptr<KRSource> makeV4l2Source(const KRSourceString& string);

} // namespace KR
