#pragma once

#include <string_view>

namespace KR::web {

/// A file of the page, embedded in the library: those of the folder page.
struct Asset {
    std::string_view path; ///< "/page.js"
    std::string_view type; ///< media type
    std::string_view content;
};

/// The asset of this path, "/" for index.html; null if there is none.
const Asset* findAsset(std::string_view path) noexcept;

} // namespace KR::web
