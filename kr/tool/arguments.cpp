#include "tool/arguments.hpp"

#include <CLI/CLI.hpp>

#include <charconv>
#include <sstream>
#include <utility>

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
std::string describeRange(Number minimum, Number maximum) {
    std::ostringstream text;
    text << minimum << " to " << maximum;
    return text.str();
}

std::string refuse(const std::string& expected, const std::string& text) {
    return "expected " + expected + ", not \"" + text + "\"";
}

} // namespace

Argument& Argument::required() {
    option_->required();
    return *this;
}

Argument& Argument::wholeNumber(std::int64_t minimum, std::int64_t maximum) {
    const std::string limits = describeRange(minimum, maximum);
    const auto normalize = [=](std::string& text) -> std::string {
        std::int64_t number = 0;
        if (!read(text, minimum, maximum, number)) {
            return refuse("a whole number, " + limits, text);
        }
        text = std::to_string(number); // CLI11 would read leading zeros as octal
        return "";
    };
    option_->transform(CLI::Validator(normalize, maximum < std::numeric_limits<int>::max() ? limits : ""));
    return *this;
}

Argument& Argument::realNumber(double minimum, double maximum) {
    const std::string limits = describeRange(minimum, maximum);
    const auto check = [=](const std::string& text) -> std::string {
        double number = 0;
        return read(text, minimum, maximum, number) ? "" : refuse("a number, " + limits, text);
    };
    option_->check(CLI::Validator(check, limits));
    return *this;
}

Argument& Argument::oneOf(const std::vector<std::string>& values) {
    option_->check(CLI::IsMember(values));
    return completes(values);
}

Argument& Argument::completes(const std::vector<std::string>& values) {
    return completes([values](const std::string&) { return values; });
}

Argument& Argument::completes(ValueCompleter completer) {
    (*completers_)[option_] = std::move(completer);
    return *this;
}

Argument& Argument::repeatable() {
    option_->take_all()->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    return *this;
}

Argument& Argument::optionalValue(const std::string& value) {
    option_->expected(0, 1)->default_str(value);
    return *this;
}

Argument& Argument::excludes(const std::string& name) {
    option_->excludes(name);
    return *this;
}

Argument& Argument::showDefault() {
    option_->capture_default_str();
    return *this;
}

Argument& Argument::valueName(const std::string& name) {
    option_->type_name(name);
    return *this;
}

template <class Value>
Argument Arguments::addTo(const std::string& name, Value& value, const std::string& help) {
    return Argument(*verb_.add_option(name, value, help), completers_);
}

Argument Arguments::add(const std::string& name, std::string& value, const std::string& help) {
    return addTo(name, value, help);
}

Argument Arguments::add(const std::string& name, int& value, const std::string& help) {
    return addTo(name, value, help);
}

Argument Arguments::add(const std::string& name, std::uint64_t& value, const std::string& help) {
    return addTo(name, value, help);
}

Argument Arguments::add(const std::string& name, std::optional<std::uint64_t>& value,
                        const std::string& help) {
    return addTo(name, value, help);
}

Argument Arguments::add(const std::string& name, double& value, const std::string& help) {
    return addTo(name, value, help);
}

Argument Arguments::add(const std::string& name, std::vector<std::string>& values, const std::string& help) {
    return addTo(name, values, help);
}

Argument Arguments::add(const std::string& name, std::vector<std::vector<std::string>>& values,
                        const std::string& help) {
    return addTo(name, values, help);
}

void Arguments::addFlag(const std::string& name, bool& value, const std::string& help) {
    verb_.add_flag(name, value, help);
}

std::function<std::vector<std::string>()> Arguments::acceptMore() {
    verb_.allow_extras();
    return [&verb = verb_] { return verb.remaining(); };
}

void Arguments::hide() {
    verb_.group("");
}

} // namespace KR::tool
