#include "tool/json.hpp"

#include <krplatform/krtext.hpp>

#include <cstdio>

namespace KR::tool {

std::string formatJson(const Json& value, int indent) {
    const std::string text = value.dump(indent, ' ', false, Json::error_handler_t::replace);
    // The library escapes U+0000 to U+001F. DEL and U+0080 to U+009F can only stand in strings here.
    std::string safe;
    safe.reserve(text.size());
    const auto escape = [&](unsigned char last) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", last);
        safe += escaped;
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        if (byte == 0x7F) {
            escape(byte);
        } else if (byte == 0xC2 && next < 0xA0) {
            escape(static_cast<unsigned char>(next));
            ++i;
        } else {
            safe.push_back(text[i]);
        }
    }
    return safe;
}

void printJson(const Json& value) {
    std::printf("%s\n", formatJson(value, 2).c_str());
}

void printNames(const std::vector<std::string>& names, bool asJson) {
    if (asJson) {
        printJson(names);
        return;
    }
    for (const std::string& name : names) {
        std::printf("%s\n", escapeText(name).c_str());
    }
}

} // namespace KR::tool
