#pragma once

#include <nlohmann/json.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

/// The messages of the Foxglove WebSocket protocol, version 1. All functions are reentrant.
namespace KR::web {

/// Ends the memory key of what a module sees in images: "KRMotion/Annotations".
inline constexpr std::string_view kAnnotationsSuffix = "/Annotations";

using Json = nlohmann::ordered_json;

/// Subprotocols that a client may ask for; the first one that it names is spoken. Both have the same messages.
inline constexpr std::array<std::string_view, 2> kSubprotocols = {"foxglove.websocket.v1", "foxglove.sdk.v1"};

/// A message of a client that is not of the protocol; the text says what is wrong.
class ProtocolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// \name What clients send
///@{
/// Levels of JSON in a message: copying it takes stack for each. Values nest less deep.
inline constexpr std::size_t kMaxNesting = 128;

struct Subscribe {
    struct Subscription {
        std::uint32_t id; ///< chosen by the client
        std::uint32_t channel;
    };
    std::vector<Subscription> subscriptions;
};
struct Unsubscribe {
    std::vector<std::uint32_t> ids;
};
struct GetParameters {
    std::vector<std::string> names; ///< none: all
    std::optional<std::string> id;  ///< comes back with the answer
};
struct SetParameters {
    std::vector<std::pair<std::string, Json>> values;
    std::optional<std::string> id;
};
struct SubscribeParameters {
    std::vector<std::string> names; ///< none: all
    bool subscribe = true;          ///< false: ends such subscriptions
};
struct CallService {
    std::uint32_t service = 0;
    std::uint32_t call = 0; ///< chosen by the client
    std::string encoding;
    std::string payload;
};
/// An operation that this server does not have.
struct Unsupported {
    std::string operation;
};
using ClientMessage = std::variant<Subscribe, Unsubscribe, GetParameters, SetParameters, SubscribeParameters,
                                   CallService, Unsupported>;

/// \throws ProtocolError  also if arrays and objects are nested more than kMaxNesting deep
ClientMessage decodeText(std::string_view text);
/// \throws ProtocolError
ClientMessage decodeBinary(std::span<const unsigned char> bytes);
///@}

/// \name What the server sends
///@{
struct ServerInfo {
    std::string name;
    std::vector<std::string> capabilities;
    std::string sessionId;
    std::vector<std::pair<std::string, std::string>> metadata;
};
enum class StatusLevel { Info = 0, Warning = 1, Error = 2 };
struct ChannelInfo {
    std::uint32_t id = 0;
    std::string topic;
    std::string encoding;
    std::string schemaName;
    std::string schema;
    std::string schemaEncoding;
};
struct ServiceInfo {
    std::uint32_t id = 0;
    std::string name;
    Json requestSchema;
    Json responseSchema;
};

std::string encodeServerInfo(const ServerInfo& info);
std::string encodeStatus(StatusLevel level, std::string_view text);
std::string encodeAdvertise(std::span<const ChannelInfo> channels);
std::string encodeUnadvertise(std::span<const std::uint32_t> channels);
std::string encodeAdvertiseServices(std::span<const ServiceInfo> services);
std::string encodeUnadvertiseServices(std::span<const std::uint32_t> services);
std::string encodeParameterValues(const std::vector<std::pair<std::string, Json>>& values,
                                  const std::optional<std::string>& id);
std::string encodeCallFailure(const CallService& call, std::string_view text);
/// A binary message. \param payload  JSON
std::string encodeCallResponse(const CallService& call, std::string_view payload);

/// What goes before the payload of a message of a channel.
using DataHeader = std::array<unsigned char, 13>;
DataHeader encodeDataHeader(std::uint32_t subscription, std::uint64_t time_ns) noexcept;

/// As text; bytes that are not UTF-8 become U+FFFD.
std::string dump(const Json& json);
///@}

} // namespace KR::web
