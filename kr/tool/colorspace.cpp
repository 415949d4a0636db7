#include "tool/colorspace.hpp"

#include "tool/command.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

namespace KR::tool {

namespace {

struct ColorSpace {
    int code;
    const char* name;
};

constexpr std::array kColorSpaces = {
    ColorSpace{kLumaColorSpace, "luma"}, ColorSpace{kYUV422ColorSpace, "YUV422"},
    ColorSpace{kRgbColorSpace, "RGB"},   ColorSpace{kBgrColorSpace, "BGR"},
    ColorSpace{kBgrxColorSpace, "BGRx"},
};

std::string toLower(std::string text) {
    std::ranges::transform(text, text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

} // namespace

std::string describeColorSpace(long long code) {
    const auto found = std::ranges::find(kColorSpaces, code, &ColorSpace::code);
    return found == kColorSpaces.end() ? std::to_string(code)
                                       : found->name + (" (" + std::to_string(code) + ")");
}

int parseColorSpace(const std::string& name) {
    const auto found = std::ranges::find_if(
        kColorSpaces, [&](const ColorSpace& space) { return toLower(space.name) == toLower(name); });
    if (found == kColorSpaces.end()) {
        throw UsageError("colour space " + name + " is not supported; colour spaces are " +
                         listColorSpaces());
    }
    return found->code;
}

std::string listColorSpaces() {
    std::string list;
    for (const ColorSpace& space : kColorSpaces) {
        list += (list.empty() ? "" : ", ") + toLower(space.name);
    }
    return list;
}

Argument declareColorSpace(Arguments& arguments, std::string& name, const std::string& what) {
    std::vector<std::string> names;
    names.reserve(std::size(kColorSpaces));
    for (const ColorSpace& space : kColorSpaces) {
        names.push_back(toLower(space.name));
    }
    return arguments.add("--color-space", name, what + ": " + listColorSpaces())
        .valueName("NAME")
        .completes(names);
}

} // namespace KR::tool
