#pragma once

#include "krplatform/krexport.hpp"

#include <cstddef>
#include <string>
#include <string_view>

namespace KR {

/// The text in a form that is safe to print on a terminal and stays on one line.
///
/// Line breaks and tabs become "\n", "\r" and "\t". Every byte of another control character (ESC, DEL and C1
/// included), of characters that change the direction or line of the text, and of anything that is not
/// UTF-8 becomes "\xNN". Backslashes stay, so escaping twice changes nothing.
/// \param maxBytes  longest result in bytes, 3 or more; a longer one is cut between characters and ends in "..."
/// Reentrant.
KR_EXPORT std::string escapeText(std::string_view text, std::size_t maxBytes = std::string::npos);

/// The what() of the exception being handled, whatever its type. Call it in a catch block.
KR_EXPORT std::string describeCurrentException();

} // namespace KR
