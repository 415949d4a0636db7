#include "webclient.hpp"

#include <nlohmann/json.hpp>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <deque>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace KR::test {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;

constexpr std::chrono::seconds kClientPatience{20};

asio::ip::tcp::endpoint at(int port) {
    return {asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)};
}

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
    asio::io_context context;
    beast::tcp_stream stream(context);
    stream.socket().connect(at(port));
    http::request<http::empty_body> request(http::string_to_verb(method), target, 11);
    request.set(http::field::host, "127.0.0.1:" + std::to_string(port));
    request.keep_alive(false);
    for (const auto& [name, value] : headers) {
        request.set(name, value);
    }
    beast::error_code error;
    http::write(stream.socket(), request, error);
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.skip(method == "HEAD");
    http::read(stream.socket(), buffer, parser, error);
    if (error && error != http::error::end_of_stream) {
        return {};
    }
    HttpAnswer answer;
    answer.status = static_cast<int>(parser.get().result_int());
    for (const auto& field : parser.get()) {
        answer.fields[std::string(field.name_string())] = std::string(field.value());
    }
    answer.body = parser.get().body();
    return answer;
}

RawConnection::RawConnection(int port, int receiveBuffer) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    if (receiveBuffer > 0) {
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    const timeval patience{kClientPatience.count(), 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("the server does not accept connections");
    }
}

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
    explicit Private() : stream(context) {}

    /// Reads one message, or to the end. \return false: out of time, or the connection has ended
    bool read() {
        if (hasEnded) {
            return false;
        }
        bool isDone = false;
        beast::error_code result;
        stream.async_read(buffer, [&](beast::error_code error, std::size_t) {
            isDone = true;
            result = error;
        });
        context.restart();
        context.run_for(kClientPatience);
        if (!isDone) {
            beast::get_lowest_layer(stream).close();
            context.restart();
            context.run();
            hasEnded = true;
            isTimeOver = true;
            return false;
        }
        if (result) {
            hasEnded = true;
            return false;
        }
        std::string bytes = beast::buffers_to_string(buffer.data());
        buffer.consume(buffer.size());
        if (stream.got_text()) {
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

    asio::io_context context;
    websocket::stream<beast::tcp_stream> stream;
    beast::flat_buffer buffer;
    bool hasEnded = false;
    bool isTimeOver = false;
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
    : p_(std::make_unique<Private>()) {
    beast::get_lowest_layer(p_->stream).socket().connect(at(port));
    beast::get_lowest_layer(p_->stream).socket().set_option(asio::ip::tcp::no_delay(true));
    p_->stream.set_option(websocket::stream_base::decorator([&](websocket::request_type& request) {
        if (!subprotocol.empty()) {
            request.set(http::field::sec_websocket_protocol, subprotocol);
        }
        for (const auto& [name, value] : headers) {
            request.set(name, value);
        }
    }));
    websocket::response_type response;
    beast::error_code error;
    p_->stream.handshake(response, "127.0.0.1:" + std::to_string(port), target, error);
    if (error) {
        throw std::runtime_error("the server refuses: " + error.message());
    }
    p_->stream.read_message_max(64 << 20);
    p_->readUntil([&] { return !p_->serverInfo.is_null(); });
}

WebClient::~WebClient() = default;

const WebClient::Json& WebClient::getServerInfo() const {
    return p_->serverInfo;
}

void WebClient::sendText(const std::string& text) {
    p_->stream.text(true);
    p_->stream.write(asio::buffer(text));
}

void WebClient::sendBinary(const std::string& bytes) {
    p_->stream.binary(true);
    p_->stream.write(asio::buffer(bytes));
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
    return !p_->isTimeOver;
}

} // namespace KR::test
