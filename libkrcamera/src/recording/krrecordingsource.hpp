#pragma once

#include "source/krsource.hpp"

#include <memory>

namespace KR {

/// An oxv recording. It has no controls.
std::unique_ptr<KRSource> makeRecordingSource(const KRSourceString& string);

} // namespace KR
