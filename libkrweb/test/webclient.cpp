#include "webclient.hpp"

#include "webstream.hpp"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <deque>
#include <stdexcept>

#include <sys/socket.h>
#include <unistd.h>

namespace KR::test {

namespace {

// The example of RFC 6455.
constexpr const char* kKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr const char* kAccepted = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

std::uint64_t readNumber(const std::string& bytes, std::size_t start, std::size_t size) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < size; ++i) {
        number |= std::uint64_t{static_cast<unsigned char>(bytes.at(start + i))} << (8 * i);
    }
    return number;
}

void appendNumber(std::string& bytes, std::uint32_t number) {
    for (std::size_t i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<char>(number >> (8 * i) & 0xFF));
    }
}

} // namespace

HttpAnswer get(int port, const std::string& target, const Headers& headers, const std::string& method) {
    Stream stream(port);
    stream.write(makeRequest(method, target, {{"Host", nameHost(port)}, {"Connection", "close"}}, headers));
    auto answer = readHead(stream);
    if (!answer) {
        return {};
    }
    const auto length = answer->fields.find("Content-Length");
    if (method == "HEAD" || answer->status == 101) { // the protocol has changed
        return *answer;
    }
    if (length == answer->fields.end()) {
        answer->body = stream.readToEnd();
        return *answer;
    }
    const auto body = stream.read(std::stoul(length->second));
    if (!body) {
        return {};
    }
    answer->body = *body;
    return *answer;
}

RawConnection::RawConnection(int port, int receiveBuffer) : socket_(connectTo(port, receiveBuffer)) {}

RawConnection::~RawConnection() {
    ::close(socket_);
}

bool RawConnection::write(std::string_view bytes) {
    return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string RawConnection::readUntil(std::string_view text) {
    std::string all;
    char byte = 0;
    while (all.find(text) == std::string::npos && ::recv(socket_, &byte, 1, 0) == 1) {
        all.push_back(byte);
    }
    return all;
}

bool RawConnection::skip() {
    std::string bytes(65536, '\0');
    return ::recv(socket_, bytes.data(), bytes.size(), 0) > 0;
}

bool RawConnection::readToEnd() {
    std::string bytes(65536, '\0');
    ssize_t size = 0;
    do {
        size = ::recv(socket_, bytes.data(), bytes.size(), 0);
    } while (size > 0);
    return size == 0 || errno == ECONNRESET;
}

struct WebClient::Private {
    explicit Private(int port) : stream(port) {}

    void send(Opcode kind, const std::string& bytes) {
        if (!stream.write(makeFrame(kind, bytes))) {
            throw std::runtime_error("the server takes no message");
        }
    }

    struct Message {
        Opcode kind;
        std::string bytes;
    };

    /// Reads one message, and answers what the protocol asks for. \return none: out of time, or the connection has ended
    std::optional<Message> readMessage() {
        Message message{Text, ""};
        for (;;) {
            const auto head = stream.read(2);
            if (!head) {
                return {};
            }
            const auto first = static_cast<unsigned char>(head->at(0));
            std::size_t size =
                static_cast<unsigned char>(head->at(1)); // without a mask, which only clients use
            if (size > 127) {
                throw std::runtime_error("the server masks a frame");
            }
            if (size > 125) {
                const auto bytes = stream.read(size == 126 ? 2 : 8);
                if (!bytes) {
                    return {};
                }
                size = 0;
                for (const char byte : *bytes) {
                    size = size << 8 | static_cast<unsigned char>(byte);
                }
            }
            const auto payload = stream.read(size);
            if (!payload) {
                return {};
            }
            const auto opcode = static_cast<Opcode>(first & 15);
            if (opcode == Close || opcode == Ping) {
                stream.write(makeFrame(opcode == Close ? Close : Pong, *payload));
            }
            if (opcode == Close) {
                return {};
            }
            if (opcode >= Ping) {
                continue;
            }
            if (opcode != 0) { // 0: the message goes on
                message.kind = opcode;
            }
            message.bytes += *payload;
            if ((first & 0x80) != 0) {
                return message;
            }
        }
    }

    /// Reads one message and keeps it. \return false: out of time, or the connection has ended
    bool read() {
        if (hasEnded) {
            return false;
        }
        const auto message = readMessage();
        if (!message) {
            hasEnded = true;
            return false;
        }
        const std::string& bytes = message->bytes;
        if (message->kind == Text) {
            take(Json::parse(bytes));
        } else if (bytes.at(0) == 1) {
            const auto subscription = static_cast<std::uint32_t>(readNumber(bytes, 1, 4));
            data[subscription].push_back({subscription, readNumber(bytes, 5, 8), bytes.substr(13)});
        } else {
            const auto length = readNumber(bytes, 9, 4);
            answers[static_cast<std::uint32_t>(readNumber(bytes, 5, 4))] =
                Json::parse(bytes.substr(13 + length));
        }
        return true;
    }

    void take(const Json& message) {
        const std::string operation = message.at("op");
        if (operation == "serverInfo") {
            serverInfo = message;
        } else if (operation == "advertise") {
            for (const Json& channel : message.at("channels")) {
                channels[channel.at("topic")] = channel;
            }
        } else if (operation == "unadvertise") {
            for (const Json& id : message.at("channelIds")) {
                std::erase_if(channels, [&](const auto& channel) { return channel.second.at("id") == id; });
            }
        } else if (operation == "advertiseServices") {
            for (const Json& service : message.at("services")) {
                services[service.at("name")] = service;
            }
        } else if (operation == "unadvertiseServices") {
            for (const Json& id : message.at("serviceIds")) {
                std::erase_if(services, [&](const auto& service) { return service.second.at("id") == id; });
            }
        } else if (operation == "serviceCallFailure") {
            answers[message.at("callId")] = {{"failure", message.at("message")}};
        } else {
            texts[operation].push_back(message);
        }
    }

    template <class Condition>
    bool readUntil(Condition condition) {
        while (!condition()) {
            if (!read()) {
                return condition();
            }
        }
        return true;
    }

    Stream stream;
    bool hasEnded = false;
    Json serverInfo;
    std::map<std::string, Json> channels;
    std::map<std::string, Json> services;
    std::map<std::uint32_t, std::deque<Data>> data;
    std::map<std::uint32_t, Json> answers;
    std::map<std::string, std::deque<Json>> texts;
    std::uint32_t lastId = 0;
};

WebClient::WebClient(int port, const Headers& headers, const std::string& target,
                     const std::string& subprotocol)
    : p_(std::make_unique<Private>(port)) {
    Headers fields{{"Host", nameHost(port)},
                   {"Upgrade", "websocket"},
                   {"Connection", "Upgrade"},
                   {"Sec-WebSocket-Version", "13"},
                   {"Sec-WebSocket-Key", kKey}};
    if (!subprotocol.empty()) {
        fields.emplace_back("Sec-WebSocket-Protocol", subprotocol);
    }
    p_->stream.write(makeRequest("GET", target, fields, headers));
    const auto answer = readHead(p_->stream);
    if (!answer || answer->status != 101 || answer->fields.at("Sec-WebSocket-Accept") != kAccepted) {
        throw std::runtime_error("the server refuses: " +
                                 (answer ? std::to_string(answer->status) : "no answer"));
    }
    p_->readUntil([&] { return !p_->serverInfo.is_null(); });
}

WebClient::~WebClient() = default;

const WebClient::Json& WebClient::getServerInfo() const {
    return p_->serverInfo;
}

void WebClient::sendText(const std::string& text) {
    p_->send(Text, text);
}

void WebClient::sendBinary(const std::string& bytes) {
    p_->send(Binary, bytes);
}

WebClient::Json WebClient::waitForChannel(const std::string& topic) {
    if (!p_->readUntil([&] { return p_->channels.contains(topic); })) {
        throw std::runtime_error("there is no channel " + topic);
    }
    return p_->channels[topic];
}

bool WebClient::waitForNoChannel(const std::string& topic) {
    return p_->readUntil([&] { return !p_->channels.contains(topic); });
}

WebClient::Json WebClient::waitForService(const std::string& name) {
    if (!p_->readUntil([&] { return p_->services.contains(name); })) {
        throw std::runtime_error("there is no service " + name);
    }
    return p_->services[name];
}

bool WebClient::waitForNoService(const std::string& name) {
    return p_->readUntil([&] { return !p_->services.contains(name); });
}

std::uint32_t WebClient::subscribe(const std::string& topic) {
    const Json channel = waitForChannel(topic);
    const std::uint32_t id = ++p_->lastId;
    const Json subscription = {{"id", id}, {"channelId", channel.at("id")}};
    sendText(Json{{"op", "subscribe"}, {"subscriptions", Json::array({subscription})}}.dump());
    return id;
}

void WebClient::unsubscribe(std::uint32_t subscription) {
    sendText(Json{{"op", "unsubscribe"}, {"subscriptionIds", Json::array({subscription})}}.dump());
}

WebClient::Data WebClient::readData(std::uint32_t subscription) {
    auto& waiting = p_->data[subscription];
    if (!p_->readUntil([&] { return !waiting.empty(); })) {
        throw std::runtime_error("no message arrived");
    }
    Data first = std::move(waiting.front());
    waiting.pop_front();
    return first;
}

WebClient::Json WebClient::readJson(std::uint32_t subscription) {
    return Json::parse(readData(subscription).payload);
}

WebClient::Json WebClient::readText(const std::string& operation) {
    auto& waiting = p_->texts[operation];
    if (!p_->readUntil([&] { return !waiting.empty(); })) {
        throw std::runtime_error("no message " + operation + " came");
    }
    const Json first = std::move(waiting.front());
    waiting.pop_front();
    return first;
}

WebClient::Json WebClient::call(const std::string& name, const Json& request) {
    const Json service = waitForService(name);
    const std::uint32_t id = ++p_->lastId;
    std::string bytes = "\2";
    appendNumber(bytes, service.at("id"));
    appendNumber(bytes, id);
    appendNumber(bytes, 4);
    sendBinary(bytes + "json" + request.dump());
    return readAnswer(id);
}

WebClient::Json WebClient::readAnswer(std::uint32_t id) {
    if (!p_->readUntil([&] { return p_->answers.contains(id); })) {
        throw std::runtime_error("no answer arrived");
    }
    return p_->answers[id];
}

bool WebClient::waitForEnd() {
    while (p_->read()) {
    }
    return !p_->stream.isTimeOver();
}

} // namespace KR::test
