#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace KR {

/// The text with its line breaks written as "\n" and "\r", so that it stays one line.
inline std::string inOneLine(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else {
            line += c;
        }
    }
    return line;
}

/// What the exception that is being handled says, whatever its type.
inline std::string describeCurrentException() {
    try {
        throw;
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "it threw something that is no exception";
    }
}

/// "a, b, c"
template <class Range, class ToText>
std::string joinWithCommas(const Range& range, ToText toText) {
    std::string text;
    for (const auto& element : range) {
        if (!text.empty()) {
            text += ", ";
        }
        text += toText(element);
    }
    return text;
}

} // namespace KR
