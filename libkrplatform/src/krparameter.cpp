#include "krplatform/krparameter.hpp"

#include "krplatform/krproxy.hpp"
#include "krplatform/krtext.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <sstream>

namespace KR {

namespace {

constexpr std::array<const char*, 5> kTypeNames{"bool", "int", "float", "text", "choice"};
constexpr std::size_t kLongestShown = 80; // bytes of a value in a message

std::string show(const KRValue& value) {
    std::ostringstream text;
    text << value;
    return escapeText(text.str(), kLongestShown);
}

bool equalIgnoringCase(const std::string& a, const std::string& b) {
    return std::ranges::equal(
        a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

KRParameterInfo::Type toType(const std::string& name) {
    for (std::size_t i = 0; i < kTypeNames.size(); ++i) {
        if (name == kTypeNames[i]) {
            return static_cast<KRParameterInfo::Type>(i);
        }
    }
    throw KRError("KRParameterInfo", "fromKRValue", "unknown parameter type " + name);
}

} // namespace

const char* KRParameterInfo::getTypeName() const noexcept {
    return kTypeNames[static_cast<std::size_t>(type)];
}

std::string KRParameterInfo::describeRange() const {
    const auto describeNumbers = [this](const char* kind) {
        return std::string(kind) + " from " + show(minimum) + " to " + show(maximum) +
               (unit.empty() ? "" : " " + unit);
    };
    switch (type) {
    case Type::Bool:
        return "true or false";
    case Type::Int:
        return describeNumbers("a whole number");
    case Type::Float:
        return describeNumbers("a number");
    case Type::Text:
        return "a text of at most " + std::to_string(kMaxTextBytes) + " bytes";
    case Type::Choice:
        break;
    }
    std::string list;
    for (const std::string& choice : choices) {
        list += (list.empty() ? "" : ", ") + choice;
    }
    return "one of " + list;
}

std::optional<KRValue> KRParameterInfo::convert(const KRValue& given, std::string& problem) const {
    switch (type) {
    case Type::Bool:
        if (given == 0 || given == 1) {
            return given;
        }
        break;
    case Type::Int:
        if (given.isInt() && given.to<int>() >= minimum.to<int>() && given.to<int>() <= maximum.to<int>()) {
            return given;
        }
        break;
    case Type::Float:
        if (given.isInt() || given.isFloat()) {
            const auto number = given.to<float>();
            if (number >= minimum.to<float>() && number <= maximum.to<float>()) { // never for NaN
                return number;
            }
        }
        break;
    case Type::Text:
        if (given.isString() && given.to<std::string>().size() <= kMaxTextBytes) {
            return given;
        }
        break;
    case Type::Choice:
        if (given.isString()) {
            const auto text = given.to<std::string>();
            auto found = std::ranges::find(choices, text);
            if (found == choices.end()) {
                found = std::ranges::find_if(
                    choices, [&](const std::string& choice) { return equalIgnoringCase(choice, text); });
            }
            if (found != choices.end()) {
                return *found;
            }
        }
        break;
    }
    problem = name + " cannot be " + show(given) + "; it takes " + describeRange();
    return std::nullopt;
}

std::string KRParameterInfo::format(const KRValue& given) const {
    if (type == Type::Bool && given.isInt()) {
        return given.to<bool>() ? "true" : "false";
    }
    if (type == Type::Choice && given.isString()) {
        return given.to<std::string>();
    }
    return show(given);
}

KRValue KRParameterInfo::toKRValue() const {
    return KRValue::array(name, getTypeName(), description, unit, defaultValue, minimum, maximum, choices,
                          saved, value);
}

KRParameterInfo KRParameterInfo::fromKRValue(const KRValue& value) {
    return {.name = value[0].to<std::string>(),
            .type = toType(value[1].to<std::string>()),
            .description = value[2].to<std::string>(),
            .unit = value[3].to<std::string>(),
            .defaultValue = value[4],
            .minimum = value[5],
            .maximum = value[6],
            .choices = value[7].to<std::vector<std::string>>(),
            .saved = value[8].to<bool>(),
            .value = value[9]};
}

std::vector<KRParameterInfo> getParameterList(const KRProxy& module) {
    std::vector<KRParameterInfo> list;
    for (const KRValue& each : module.call<std::vector<KRValue>>("getParameterList")) {
        list.push_back(KRParameterInfo::fromKRValue(each));
    }
    return list;
}

} // namespace KR
