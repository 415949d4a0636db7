#include "krwebmessages.hpp"

#include <krplatform/krtext.hpp>

#include <cstring>

namespace KR::web {

namespace {

constexpr unsigned char kMessageData = 1;
constexpr unsigned char kServiceCall = 2; // and kClientMessage = 1, the other way
constexpr unsigned char kServiceResponse = 3;

[[noreturn]] void refuse(const std::string& text) {
    throw ProtocolError(text);
}

const Json& getField(const Json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end()) {
        refuse("the field \"" + std::string(name) + "\" is missing");
    }
    return *found;
}

const Json& getArray(const Json& object, const char* name) {
    const Json& field = getField(object, name);
    if (!field.is_array()) {
        refuse("\"" + std::string(name) + "\" is not an array");
    }
    return field;
}

std::uint32_t toId(const Json& json, const char* name) {
    if (!json.is_number_unsigned() || json.get<std::uint64_t>() > UINT32_MAX) {
        refuse("\"" + std::string(name) + "\" is not a number from 0 to 4294967295");
    }
    return json.get<std::uint32_t>();
}

// Only counts brackets; the parser decides whether it is JSON.
bool isNestedTooDeep(std::string_view text) {
    std::size_t depth = 0;
    bool isString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (isString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                isString = false;
            }
        } else if (c == '"') {
            isString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxNesting) {
                return true;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

std::string toText(const Json& json, const char* name) {
    if (!json.is_string()) {
        refuse("\"" + std::string(name) + "\" is not a string");
    }
    return json.get<std::string>();
}

std::vector<std::string> getTexts(const Json& object, const char* name) {
    std::vector<std::string> texts;
    for (const Json& each : getArray(object, name)) {
        texts.push_back(toText(each, name));
    }
    return texts;
}

std::optional<std::string> getRequestId(const Json& object) {
    const auto found = object.find("id");
    return found == object.end() || found->is_null() ? std::nullopt : std::optional(toText(*found, "id"));
}

Subscribe readSubscribe(const Json& object) {
    Subscribe message;
    for (const Json& each : getArray(object, "subscriptions")) {
        if (!each.is_object()) {
            refuse("a subscription is not an object");
        }
        message.subscriptions.push_back(
            {toId(getField(each, "id"), "id"), toId(getField(each, "channelId"), "channelId")});
    }
    return message;
}

SetParameters readSetParameters(const Json& object) {
    SetParameters message;
    for (const Json& each : getArray(object, "parameters")) {
        if (!each.is_object()) {
            refuse("a parameter is not an object");
        }
        const auto value = each.find("value");
        message.values.emplace_back(toText(getField(each, "name"), "name"),
                                    value == each.end() ? Json() : *value);
    }
    message.id = getRequestId(object);
    return message;
}

std::uint32_t readNumber(std::span<const unsigned char> bytes, std::size_t at) {
    if (bytes.size() < at + 4) {
        refuse("a binary message of " + std::to_string(bytes.size()) + " bytes ends too early");
    }
    return bytes[at] | static_cast<std::uint32_t>(bytes[at + 1]) << 8 |
           static_cast<std::uint32_t>(bytes[at + 2]) << 16 | static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

template <class Number>
void append(std::string& bytes, Number number) {
    for (std::size_t i = 0; i < sizeof number; ++i) {
        bytes.push_back(static_cast<char>(number >> (8 * i) & 0xFF));
    }
}

} // namespace

ClientMessage decodeText(std::string_view text) {
    if (isNestedTooDeep(text)) {
        refuse("the JSON is nested more than " + std::to_string(kMaxNesting) + " deep");
    }
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        refuse("a text message is not a JSON object");
    }
    const std::string operation = toText(getField(json, "op"), "op");
    if (operation == "subscribe") {
        return readSubscribe(json);
    }
    if (operation == "unsubscribe") {
        Unsubscribe message;
        for (const Json& each : getArray(json, "subscriptionIds")) {
            message.ids.push_back(toId(each, "subscriptionIds"));
        }
        return message;
    }
    if (operation == "getParameters") {
        return GetParameters{getTexts(json, "parameterNames"), getRequestId(json)};
    }
    if (operation == "setParameters") {
        return readSetParameters(json);
    }
    if (operation == "subscribeParameterUpdates" || operation == "unsubscribeParameterUpdates") {
        return SubscribeParameters{getTexts(json, "parameterNames"), operation.front() == 's'};
    }
    return Unsupported{escapeText(operation, 100)};
}

ClientMessage decodeBinary(std::span<const unsigned char> bytes) {
    if (bytes.empty()) {
        refuse("a binary message is empty");
    }
    if (bytes[0] != kServiceCall) {
        return Unsupported{"binary operation " + std::to_string(bytes[0])};
    }
    CallService message;
    message.service = readNumber(bytes, 1);
    message.call = readNumber(bytes, 5);
    const std::uint32_t length = readNumber(bytes, 9);
    constexpr std::size_t kStart = 13;
    if (length > bytes.size() - kStart) {
        refuse("the encoding of a call is longer than the message");
    }
    const auto* text = reinterpret_cast<const char*>(bytes.data()) + kStart;
    message.encoding.assign(text, length);
    message.payload.assign(text + length, bytes.size() - kStart - length);
    return message;
}

std::string dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string encodeServerInfo(const ServerInfo& info) {
    Json metadata = Json::object();
    for (const auto& [name, value] : info.metadata) {
        metadata[name] = value;
    }
    return dump({{"op", "serverInfo"},
                 {"name", info.name},
                 {"capabilities", info.capabilities},
                 {"supportedEncodings", {"json"}},
                 {"metadata", metadata},
                 {"sessionId", info.sessionId}});
}

std::string encodeStatus(StatusLevel level, std::string_view text) {
    return dump({{"op", "status"}, {"level", static_cast<int>(level)}, {"message", text}});
}

std::string encodeAdvertise(std::span<const ChannelInfo> channels) {
    Json list = Json::array();
    for (const ChannelInfo& channel : channels) {
        list.push_back({{"id", channel.id},
                        {"topic", channel.topic},
                        {"encoding", channel.encoding},
                        {"schemaName", channel.schemaName},
                        {"schema", channel.schema},
                        {"schemaEncoding", channel.schemaEncoding}});
    }
    return dump({{"op", "advertise"}, {"channels", std::move(list)}});
}

std::string encodeUnadvertise(std::span<const std::uint32_t> channels) {
    return dump({{"op", "unadvertise"}, {"channelIds", channels}});
}

std::string encodeAdvertiseServices(std::span<const ServiceInfo> services) {
    Json list = Json::array();
    for (const ServiceInfo& service : services) {
        const std::string request = dump(service.requestSchema);
        const std::string response = dump(service.responseSchema);
        const auto describe = [&](const char* kind, const std::string& schema) -> Json {
            return {{"encoding", "json"},
                    {"schemaName", service.name + "." + kind},
                    {"schemaEncoding", "jsonschema"},
                    {"schema", schema}};
        };
        // Older clients read the schemas beside the newer fields.
        list.push_back({{"id", service.id},
                        {"name", service.name},
                        {"type", service.name},
                        {"request", describe("Request", request)},
                        {"response", describe("Response", response)},
                        {"requestSchema", request},
                        {"responseSchema", response}});
    }
    return dump({{"op", "advertiseServices"}, {"services", std::move(list)}});
}

std::string encodeUnadvertiseServices(std::span<const std::uint32_t> services) {
    return dump({{"op", "unadvertiseServices"}, {"serviceIds", services}});
}

std::string encodeParameterValues(const std::vector<std::pair<std::string, Json>>& values,
                                  const std::optional<std::string>& id) {
    Json list = Json::array();
    for (const auto& [name, value] : values) {
        list.push_back({{"name", name}, {"value", value}});
    }
    Json message = {{"op", "parameterValues"}, {"parameters", std::move(list)}};
    if (id) {
        message["id"] = *id;
    }
    return dump(message);
}

std::string encodeCallFailure(const CallService& call, std::string_view text) {
    return dump({{"op", "serviceCallFailure"},
                 {"serviceId", call.service},
                 {"callId", call.call},
                 {"message", text}});
}

std::string encodeCallResponse(const CallService& call, std::string_view payload) {
    constexpr std::string_view kEncoding = "json";
    std::string bytes;
    bytes.reserve(payload.size() + 32);
    bytes.push_back(static_cast<char>(kServiceResponse));
    append(bytes, call.service);
    append(bytes, call.call);
    append(bytes, static_cast<std::uint32_t>(kEncoding.size()));
    bytes += kEncoding;
    bytes += payload;
    return bytes;
}

DataHeader encodeDataHeader(std::uint32_t subscription, std::uint64_t time_ns) noexcept {
    DataHeader header{kMessageData};
    for (std::size_t i = 0; i < 4; ++i) {
        header[1 + i] = static_cast<unsigned char>(subscription >> (8 * i) & 0xFF);
    }
    for (std::size_t i = 0; i < 8; ++i) {
        header[5 + i] = static_cast<unsigned char>(time_ns >> (8 * i) & 0xFF);
    }
    return header;
}

} // namespace KR::web
