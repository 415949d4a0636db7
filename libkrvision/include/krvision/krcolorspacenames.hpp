#pragma once

#include "krvision/krvisiondefinitions.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <string_view>

/// Names of colour spaces. The functions are reentrant.
namespace KR {

/// A colour space with a name.
struct KRColorSpaceName {
    int code;         ///< see krvisiondefinitions.hpp
    const char* name; ///< "YUV422"
};

/// The colour spaces that the camera service delivers.
inline constexpr std::array kColorSpaceNames = {
    KRColorSpaceName{kLumaColorSpace, "luma"}, KRColorSpaceName{kYUV422ColorSpace, "YUV422"},
    KRColorSpaceName{kRgbColorSpace, "RGB"},   KRColorSpaceName{kBgrColorSpace, "BGR"},
    KRColorSpaceName{kBgrxColorSpace, "BGRx"},
};

/// "YUV422", or "12" for a code without a name.
inline std::string getColorSpaceName(long long code) {
    const auto found = std::ranges::find(kColorSpaceNames, code, &KRColorSpaceName::code);
    return found == kColorSpaceNames.end() ? std::to_string(code) : found->name;
}

/// The same in lower case, as options and addresses have it: "yuv422".
inline std::string getColorSpaceOption(long long code) {
    std::string option = getColorSpaceName(code);
    std::ranges::transform(option, option.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return option;
}

/// "YUV422 (9)", or "12" for a code without a name.
inline std::string describeColorSpace(long long code) {
    const std::string number = std::to_string(code);
    const std::string name = getColorSpaceName(code);
    return name == number ? number : name + " (" + number + ")";
}

/// The code of a name in upper or lower case; -1: no colour space has it.
inline int findColorSpace(std::string_view name) noexcept {
    const auto isSame = [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); };
    const auto found = std::ranges::find_if(kColorSpaceNames, [&](const KRColorSpaceName& each) {
        return std::ranges::equal(std::string_view(each.name), name, isSame);
    });
    return found == kColorSpaceNames.end() ? -1 : found->code;
}

} // namespace KR
