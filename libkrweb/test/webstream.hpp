// What a client needs of HTTP and WebSocket (RFC 6455), on a blocking socket. By hand: a library for it takes a quarter of a
// minute to compile.

#pragma once

#include "webclient.hpp"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace KR::test {

constexpr std::chrono::seconds kClientPatience{20};

/// Connects to 127.0.0.1. Reads and writes block up to 20 s. \param receiveBuffer  bytes, 0: as the system chooses
inline int connectTo(int port, int receiveBuffer) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0) {
        ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    const int noDelay = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    const timeval patience{kClientPatience.count(), 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        throw std::runtime_error("the server does not accept connections");
    }
    return socket;
}

/// A connection whose bytes are read in pieces of known size or end.
class Stream {
public:
    explicit Stream(int port) : socket_(connectTo(port, 0)) {}
    ~Stream() { ::close(socket_); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    bool write(std::string_view bytes) {
        return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    std::optional<std::string> read(std::size_t size) {
        while (received_.size() < size) {
            if (!receive()) {
                return {};
            }
        }
        return take(size);
    }
    std::optional<std::string> readThrough(std::string_view text) {
        std::size_t place = 0;
        while ((place = received_.find(text)) == std::string::npos) {
            if (!receive()) {
                return {};
            }
        }
        return take(place + text.size());
    }
    std::string readToEnd() {
        while (receive()) {
        }
        return take(received_.size());
    }
    /// \return whether a read ended because nothing came in time
    bool isTimeOver() const { return isTimeOver_; }

private:
    bool receive() {
        char bytes[65536];
        const ssize_t size = ::recv(socket_, bytes, sizeof bytes, 0);
        if (size <= 0) {
            isTimeOver_ = isTimeOver_ || (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
            return false;
        }
        received_.append(bytes, static_cast<std::size_t>(size));
        return true;
    }
    std::string take(std::size_t size) {
        std::string bytes = received_.substr(0, size);
        received_.erase(0, size);
        return bytes;
    }

    int socket_;
    std::string received_; // and not yet read
    bool isTimeOver_ = false;
};

/// \param fields  replace those of their names
inline std::string makeRequest(const std::string& method, const std::string& target, Headers all,
                               const Headers& fields) {
    for (const auto& [name, value] : fields) {
        std::erase_if(all,
                      [&](const auto& each) { return ::strcasecmp(each.first.c_str(), name.c_str()) == 0; });
        all.emplace_back(name, value);
    }
    std::string request = method + " " + target + " HTTP/1.1\r\n";
    for (const auto& [name, value] : all) {
        request += name + ": " + value + "\r\n";
    }
    return request + "\r\n";
}

inline std::string nameHost(int port) {
    return "127.0.0.1:" + std::to_string(port);
}

/// Status and fields of an answer.
inline std::optional<HttpAnswer> readHead(Stream& stream) {
    const auto head = stream.readThrough("\r\n\r\n");
    if (!head || !head->starts_with("HTTP/1.1 ")) {
        return {};
    }
    HttpAnswer answer;
    answer.status = std::stoi(head->substr(9, 3));
    for (std::size_t line = head->find("\r\n") + 2; line + 2 < head->size();) {
        const std::size_t end = head->find("\r\n", line);
        const std::size_t colon = head->find(": ", line);
        if (colon >= end) {
            return {};
        }
        answer.fields[head->substr(line, colon - line)] = head->substr(colon + 2, end - colon - 2);
        line = end + 2;
    }
    return answer;
}

/// Opcodes of WebSocket frames.
enum Opcode : unsigned { Text = 1, Binary = 2, Close = 8, Ping = 9, Pong = 10 };

inline std::string makeFrame(Opcode opcode, const std::string& payload) {
    constexpr std::string_view kMask = "\x12\x34\x56\x78"; // not for secrecy here
    std::string frame{static_cast<char>(0x80U | opcode)};
    const int sizeBytes = payload.size() < 126 ? 0 : payload.size() < 65536 ? 2 : 8;
    frame.push_back(static_cast<char>(0x80U | (sizeBytes == 0   ? payload.size()
                                               : sizeBytes == 2 ? 126U
                                                                : 127U)));
    for (int i = sizeBytes - 1; i >= 0; --i) {
        frame.push_back(static_cast<char>(payload.size() >> (8 * i) & 0xFF));
    }
    frame += kMask;
    for (std::size_t i = 0; i < payload.size(); ++i) {
        frame.push_back(static_cast<char>(payload[i] ^ kMask[i % 4]));
    }
    return frame;
}

} // namespace KR::test
