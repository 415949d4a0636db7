#pragma once

#include <string_view>

namespace KR::tool {

/// \name What lists show with --all only
///@{
/// A module that is a running kr, which receives events.
inline bool isInternalModule(std::string_view name) {
    return name.starts_with("kr-");
}
/// A method that a module calls itself, such as _run of a vision extractor.
inline bool isInternalMethod(std::string_view name) {
    return name.starts_with("_");
}
///@}

} // namespace KR::tool
