#include "krinterop/krjson.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

namespace KR {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr const char* kBinaryKey = "base64";
constexpr int kDeepest = 64; // the limit for values sent to another process

// The shortest number that reads back as this float; as a double it would show digits that it does not have.
double shorten(float number) {
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    double shortened = number;
    std::from_chars(text.data(), end, shortened);
    return shortened;
}

KRValue toInt(const Json& json) {
    constexpr int kFirst = std::numeric_limits<int>::min(), kLast = std::numeric_limits<int>::max();
    const bool fits = json.is_number_unsigned()
                          ? json.get<std::uint64_t>() <= static_cast<std::uint64_t>(kLast)
                          : json.get<std::int64_t>() >= kFirst && json.get<std::int64_t>() <= kLast;
    if (!fits) {
        throw std::invalid_argument(json.dump() + " does not fit an int of 32 bits; " + json.dump() +
                                    ".0 is a float");
    }
    return json.get<int>();
}

KRValue toFloat(const Json& json) {
    const double number = json.get<double>();
    if (std::abs(number) > static_cast<double>(std::numeric_limits<float>::max())) {
        throw std::invalid_argument(json.dump() + " does not fit a float of 32 bits");
    }
    return static_cast<float>(number);
}

KRValue toValue(const Json& json, int depth) {
    if (json.is_null()) {
        return {};
    }
    if (json.is_boolean()) {
        return json.get<bool>();
    }
    if (json.is_number_integer()) {
        return toInt(json);
    }
    if (json.is_number()) {
        return toFloat(json);
    }
    if (json.is_string()) {
        return json.get<std::string>();
    }
    if (json.is_array()) {
        if (depth == kDeepest) {
            throw std::invalid_argument("arrays are nested more than " + std::to_string(kDeepest) + " deep");
        }
        std::vector<KRValue> elements;
        elements.reserve(json.size());
        for (const Json& element : json) {
            elements.push_back(toValue(element, depth + 1));
        }
        return elements;
    }
    if (json.size() == 1 && json.contains(kBinaryKey) && json[kBinaryKey].is_string()) {
        return decodeBase64(json[kBinaryKey].get_ref<const std::string&>());
    }
    throw std::invalid_argument("a value cannot be an object, other than {\"base64\": \"...\"} for bytes");
}

} // namespace

std::string encodeBase64(const KRBinary& bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (k < count ? bytes.data()[i + k] : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text.push_back(k <= count ? kBase64[bits >> (18 - 6 * k) & 63] : '=');
        }
    }
    return text;
}

KRBinary decodeBase64(std::string_view text) {
    const auto refuse = [] { throw std::invalid_argument("the text of \"base64\" is not base64"); };
    if (text.size() % 4 != 0) {
        refuse();
    }
    std::vector<unsigned char> bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool isLast = i + 4 == text.size();
        const std::size_t padding = !isLast || text[i + 3] != '=' ? 0 : text[i + 2] == '=' ? 2 : 1;
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 4; ++k) {
            const auto digit = k >= 4 - padding ? 0 : kBase64.find(text[i + k]);
            if (digit == std::string_view::npos) {
                refuse();
            }
            bits = bits << 6 | static_cast<std::uint32_t>(digit);
        }
        for (std::size_t k = 0; k < 3 - padding; ++k) {
            bytes.push_back(static_cast<unsigned char>(bits >> (16 - 8 * k)));
        }
    }
    return KRBinary::copyOf(bytes.data(), bytes.size());
}

Json toJson(const KRValue& value) {
    switch (value.getType()) {
    case KRValue::Type::Int:
        return value.to<int>();
    case KRValue::Type::Float:
        return shorten(value.to<float>());
    case KRValue::Type::String:
        return value.to<std::string>();
    case KRValue::Type::Binary:
        return Json{{kBinaryKey, encodeBase64(value.GetBinary())}};
    case KRValue::Type::Array: {
        Json array = Json::array();
        for (std::size_t i = 0; i < value.getSize(); ++i) {
            array.push_back(toJson(value[i]));
        }
        return array;
    }
    case KRValue::Type::Invalid:
        break;
    }
    return nullptr;
}

KRValue toValue(const Json& json) {
    return toValue(json, 0);
}

} // namespace KR
