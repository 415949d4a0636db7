#pragma once

#include "krplatform/krexport.hpp"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace KR {

/// Suggestions for a misspelt `name`: names that contain it or are contained in it, then by the number of letters to add,
/// remove or replace. Upper and lower case are the same. Equal names count once.
/// \param count  of names to return at most
/// Reentrant.
KR_EXPORT std::vector<std::string> findNearestNames(std::string_view name,
                                                    const std::vector<std::string>& names, std::size_t count);

} // namespace KR
