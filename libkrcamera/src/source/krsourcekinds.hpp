#pragma once

#include "source/krsource.hpp"

#include <memory>
#include <string>

namespace KR {

/// Makes the source that a source string describes. Opens nothing.
/// \throws std::invalid_argument  the source string is invalid; the text says what is expected
std::unique_ptr<KRSource> makeSource(const std::string& text);

} // namespace KR
