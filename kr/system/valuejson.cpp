#include "system/valuejson.hpp"

#include "tool/command.hpp"

#include <stdexcept>
#include <string_view>

namespace KR::tool {

namespace {

// Enough of a text to recognise it.
std::string quote(const std::string& text) {
    constexpr std::size_t kLongest = 60;
    return '"' + (text.size() <= kLongest ? text : text.substr(0, kLongest) + "...") + '"';
}

} // namespace

KRValue toValue(const Json& json) {
    try {
        return KR::toValue(json);
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
}

KRValue readValue(const std::string& argument) {
    const Json json = Json::parse(argument, nullptr, false);
    if (!json.is_discarded()) {
        return toValue(json);
    }
    constexpr std::string_view kBeginningsOfJson = "[{\"-0123456789";
    if (!argument.empty() && kBeginningsOfJson.find(argument.front()) != std::string_view::npos) {
        throw UsageError(quote(argument) + " is not JSON; a string of that kind needs quotes: '\"...\"'");
    }
    return argument;
}

} // namespace KR::tool
