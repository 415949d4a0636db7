#include "tool/number.hpp"

#include <CLI/CLI.hpp>

#include <charconv>
#include <sstream>
#include <string>

namespace KR::tool {

namespace {

// Reads the whole text as a number. \return whether it is one, and within the limits
template <class Number>
bool read(const std::string& text, Number minimum, Number maximum, Number& number) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end && number >= minimum && number <= maximum;
}

template <class Number>
std::string describe(Number minimum, Number maximum) {
    std::ostringstream text;
    text << minimum << " to " << maximum;
    return text.str();
}

std::string refuse(const std::string& expected, const std::string& text) {
    return "expected " + expected + ", not \"" + text + "\"";
}

} // namespace

CLI::Validator wholeNumber(std::int64_t minimum, std::int64_t maximum) {
    const std::string limits = describe(minimum, maximum);
    const auto normalize = [=](std::string& text) -> std::string {
        std::int64_t number = 0;
        if (!read(text, minimum, maximum, number)) {
            return refuse("a whole number, " + limits, text);
        }
        text = std::to_string(number); // CLI11 would read leading zeros as octal
        return "";
    };
    return {normalize, maximum < std::numeric_limits<int>::max() ? limits : ""};
}

CLI::Validator realNumber(double minimum, double maximum) {
    const std::string limits = describe(minimum, maximum);
    const auto check = [=](const std::string& text) -> std::string {
        double number = 0;
        return read(text, minimum, maximum, number) ? "" : refuse("a number, " + limits, text);
    };
    return {check, limits};
}

} // namespace KR::tool
