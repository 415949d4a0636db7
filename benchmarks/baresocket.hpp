#pragma once

// Requests and replies over a plain socket, to compare calls with.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

constexpr std::size_t kRequestSize = 64;

inline void sendAll(int socket, const void* bytes, std::size_t size) {
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t sent = send(socket, next, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            throw std::runtime_error("a bare request or reply cannot be sent");
        }
        next += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

inline bool receiveAll(int socket, void* bytes, std::size_t size) {
    char* next = static_cast<char*>(bytes);
    while (size > 0) {
        const ssize_t received = recv(socket, next, size, 0);
        if (received <= 0) {
            return false;
        }
        next += received;
        size -= static_cast<std::size_t>(received);
    }
    return true;
}

inline void setNoDelay(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // fails on sockets without it
}

/// Answers each request of one client with the number of bytes it asks for.
inline void serveBare(int listening) {
    const int socket = accept(listening, nullptr, nullptr);
    setNoDelay(socket);
    const std::vector<char> pixels(4 << 20, 100);
    std::array<char, kRequestSize> request{};
    while (receiveAll(socket, request.data(), request.size())) {
        std::uint32_t size = 0;
        std::memcpy(&size, request.data(), sizeof size);
        sendAll(socket, pixels.data(), size);
    }
    close(socket);
}

inline sockaddr_in getLoopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

inline sockaddr_un getAbstract(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path + 1);
    return address;
}

template <class Address>
int listenAt(Address& address) {
    const int listening =
        socket(reinterpret_cast<const sockaddr&>(address).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t length = sizeof address;
    if (bind(listening, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listening, 1) != 0 ||
        getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot listen on a socket");
    }
    return listening;
}

template <class Address>
int connectTo(const Address& address) {
    const int connected =
        socket(reinterpret_cast<const sockaddr&>(address).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("the process to call does not start");
    }
    setNoDelay(connected);
    return connected;
}
