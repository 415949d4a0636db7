#include "serve/yamlsection.hpp"

#include "system/valuejson.hpp"
#include "tool/command.hpp"

#include <krplatform/krnearestnames.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>
#include <stdexcept>

namespace KR::tool {

namespace {

constexpr int kDeepest = 64;

std::string quoteText(const std::string& text) {
    return '"' + escapeText(text, 100) + '"';
}

template <class Number>
std::optional<Number> parseNumber(std::string_view text) {
    text.remove_prefix(text.starts_with('+') ? 1 : 0);
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// A quoted scalar has the tag "!".
Json toScalar(const YAML::Node& node) {
    const std::string& text = node.Scalar();
    if (node.Tag() == "!") {
        return text;
    }
    if (text == "true" || text == "True" || text == "TRUE") {
        return true;
    }
    if (text == "false" || text == "False" || text == "FALSE") {
        return false;
    }
    if (const auto whole = parseNumber<std::int64_t>(text)) {
        return *whole;
    }
    const auto real = parseNumber<double>(text);
    return real && std::isfinite(*real) ? Json(*real) : Json(text);
}

Json readJson(const YAML::Node& node, int depth) {
    if (depth > kDeepest) {
        throw std::invalid_argument("is nested more than 64 deep");
    }
    switch (node.Type()) {
    case YAML::NodeType::Scalar:
        return toScalar(node);
    case YAML::NodeType::Sequence: {
        Json array = Json::array();
        for (const YAML::Node& each : node) {
            array.push_back(readJson(each, depth + 1));
        }
        return array;
    }
    case YAML::NodeType::Map: {
        Json object = Json::object();
        for (const auto& each : node) {
            if (!each.first.IsScalar()) {
                throw std::invalid_argument("has a key that is not a string");
            }
            object[each.first.Scalar()] = readJson(each.second, depth + 1);
        }
        return object;
    }
    case YAML::NodeType::Null:
    case YAML::NodeType::Undefined:
        break;
    }
    return {};
}

std::string describe(const YAML::Node& node) {
    return node.IsSequence() ? "a list"
           : node.IsMap()    ? "a map"
           : node.IsNull()   ? "nothing"
                             : quoteText(node.Scalar());
}

std::string listChoices(const std::vector<std::string>& names) {
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i) {
        text += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
    }
    return text;
}

} // namespace

Place getPlace(const YAML::Node& node) {
    const YAML::Mark mark = node.Mark();
    return mark.is_null() ? Place{} : Place{mark.line + 1, mark.column + 1};
}

Json readJson(const YAML::Node& node) {
    return readJson(node, 0);
}

YamlSection::YamlSection(const YAML::Node& node, std::string title, const std::vector<std::string>& keys,
                         std::vector<RobotProblem>& problems)
    : node_(node), title_(std::move(title)), problems_(problems) {
    if (!node.IsMap()) {
        report(node,
               title_ + " needs keys and values, not " + describe(node) + "; keys are " + listChoices(keys));
        return;
    }
    std::set<std::string> seen;
    for (const auto& each : node) {
        if (!each.first.IsScalar()) {
            report(each.first, "a key of " + title_ + " is not a string");
            continue;
        }
        const std::string& key = each.first.Scalar();
        if (std::ranges::find(keys, key) == keys.end()) {
            const auto nearest = findNearestNames(key, keys, 1);
            report(each.first, title_ + " has no key " + quoteText(key) +
                                   (nearest.empty() ? "" : "; did you mean " + nearest.front() + "?"));
        } else if (!seen.insert(key).second) {
            report(each.first, title_ + " has the key " + key + " twice");
        }
    }
}

YAML::Node YamlSection::find(const std::string& key) const {
    if (node_.IsMap()) {
        for (const auto& each : node_) {
            if (each.first.IsScalar() && each.first.Scalar() == key) {
                return each.second;
            }
        }
    }
    return YAML::Node(YAML::NodeType::Undefined);
}

void YamlSection::report(const YAML::Node& node, const std::string& text) {
    problems_.push_back({getPlace(node), text});
}

bool YamlSection::require(const std::string& key) {
    const bool isThere = !node_.IsMap() || find(key).IsDefined();
    if (!isThere) {
        report(node_, title_ + " needs a " + key);
    }
    return isThere;
}

std::optional<std::string> YamlSection::readText(const YAML::Node& node, const std::string& what) {
    if (!node.IsScalar() || node.Scalar().empty()) {
        report(node, what + " needs a string, not " + (node.IsScalar() ? "\"\"" : describe(node)));
        return std::nullopt;
    }
    return node.Scalar();
}

std::optional<int> YamlSection::readInt(const YAML::Node& node, const std::string& what, int minimum,
                                        int maximum) {
    const auto number = node.IsScalar() ? parseNumber<int>(node.Scalar()) : std::nullopt;
    if (!number || *number < minimum || *number > maximum) {
        report(node,
               what + " needs a whole number from " + std::to_string(minimum) +
                   (maximum == std::numeric_limits<int>::max() ? "" : " to " + std::to_string(maximum)) +
                   ", not " + describe(node));
        return std::nullopt;
    }
    return number;
}

void YamlSection::read(const std::string& key, std::string& value) {
    if (const YAML::Node node = find(key); node.IsDefined()) {
        value = readText(node, key).value_or(value);
    }
}

void YamlSection::read(const std::string& key, bool& value) {
    const YAML::Node node = find(key);
    if (!node.IsDefined()) {
        return;
    }
    const Json json = node.IsScalar() ? toScalar(node) : Json();
    if (json.is_boolean()) {
        value = json.get<bool>();
    } else {
        report(node, key + " needs true or false, not " + describe(node));
    }
}

void YamlSection::read(const std::string& key, std::optional<int>& value, int minimum, int maximum) {
    if (const YAML::Node node = find(key); node.IsDefined()) {
        value = readInt(node, key, minimum, maximum);
    }
}

void YamlSection::read(const std::string& key, double& value, double minimum) {
    const YAML::Node node = find(key);
    if (!node.IsDefined()) {
        return;
    }
    const auto number = node.IsScalar() ? parseNumber<double>(node.Scalar()) : std::nullopt;
    if (number && std::isfinite(*number) && *number >= minimum) {
        value = *number;
    } else {
        report(node, key + " needs a number from " + Json(minimum).dump() + ", not " + describe(node));
    }
}

void YamlSection::readChoice(const std::string& key, std::string& value,
                             const std::vector<std::string>& choices) {
    const YAML::Node node = find(key);
    if (!node.IsDefined()) {
        return;
    }
    if (node.IsScalar() && std::ranges::find(choices, node.Scalar()) != choices.end()) {
        value = node.Scalar();
    } else {
        report(node, key + " needs " + listChoices(choices) + ", not " + describe(node));
    }
}

void YamlSection::read(const std::string& key, std::vector<std::string>& values) {
    visitList(find(key), key, problems_, [&](const YAML::Node& entry) {
        if (auto text = readText(entry, "an entry of " + key)) {
            values.push_back(std::move(*text));
        }
    });
}

void YamlSection::read(const std::string& key, std::vector<int>& values, int minimum, int maximum) {
    visitList(find(key), key, problems_, [&](const YAML::Node& entry) {
        if (const auto number = readInt(entry, "an entry of " + key, minimum, maximum)) {
            values.push_back(*number);
        }
    });
}

void YamlSection::read(const std::string& key, std::vector<std::pair<std::string, Json>>& values) {
    const YAML::Node node = find(key);
    if (!node.IsDefined() || node.IsNull()) {
        return;
    }
    if (!node.IsMap()) {
        report(node, key + " needs names and values, not " + describe(node));
        return;
    }
    std::set<std::string> seen;
    for (const auto& each : node) {
        const std::string name = each.first.IsScalar() ? each.first.Scalar() : "";
        if (name.empty()) {
            report(each.first, "a name in " + key + " is not a string");
        } else if (!seen.insert(name).second) {
            report(each.first, key + " has " + quoteText(name) + " twice");
        } else {
            try {
                Json json = readJson(each.second);
                toValue(json); // only to report errors
                values.emplace_back(name, std::move(json));
            } catch (const std::exception& error) { // UsageError, std::invalid_argument
                report(each.second, quoteText(name) + " in " + key + ": " + error.what());
            }
        }
    }
}

} // namespace KR::tool
