#include "krplatform/krtext.hpp"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>
#include <exception>
#include <new>

namespace KR {

namespace {

constexpr std::string_view kEllipsis = "...";

struct Character {
    std::size_t size;   // bytes, at least 1
    std::uint32_t code; // code point; meaningless if the bytes are not UTF-8
    bool valid;
};

/// The first character of a text that is not empty. Overlong forms, surrogates and code points beyond Unicode are
/// not UTF-8.
Character readCharacter(std::string_view text) noexcept {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(0);
    if (first < 0x80) {
        return {1, first, true};
    }
    const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size) {
        return {1, first, false};
    }
    std::uint32_t code = first & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byteAt(i) & 0xC0) != 0x80) {
            return {1, first, false};
        }
        code = (code << 6) | (byteAt(i) & 0x3Fu);
    }
    constexpr std::array<std::uint32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
    const bool valid = code >= kSmallest[size] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return {valid ? size : 1, code, valid};
}

bool isPrintable(std::uint32_t code) noexcept {
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool lineSeparator = code == 0x2028 || code == 0x2029;
    const bool direction = (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) ||
                           code == 0x200E || code == 0x200F || code == 0x061C;
    return !control && !lineSeparator && !direction;
}

std::string escapeCharacter(std::string_view bytes, const Character& character) {
    if (character.valid && isPrintable(character.code)) {
        return std::string(bytes);
    }
    switch (bytes.front()) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        break;
    }
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string escaped;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        escaped += "\\x";
        escaped += kDigits[byte >> 4];
        escaped += kDigits[byte & 0xF];
    }
    return escaped;
}

} // namespace

std::string escapeText(std::string_view text, std::size_t maxBytes) {
    assert(maxBytes >= kEllipsis.size());
    std::string escaped;
    escaped.reserve(std::min(text.size(), maxBytes));
    std::size_t cut = 0; // where the ellipsis would go
    while (!text.empty()) {
        const Character character = readCharacter(text);
        const std::string next = escapeCharacter(text.substr(0, character.size), character);
        if (next.size() > maxBytes - escaped.size()) {
            escaped.resize(cut);
            escaped += kEllipsis;
            break;
        }
        escaped += next;
        if (escaped.size() + kEllipsis.size() <= maxBytes) {
            cut = escaped.size();
        }
        text.remove_prefix(character.size);
    }
    return escaped;
}

std::string describeCurrentException() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return "out of memory";
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "an exception that is not a std::exception";
    }
}

} // namespace KR
