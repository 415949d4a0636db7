#include "httpserver.hpp"

#include <krplatform/krthread.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace KR {

namespace {

bool sendAll(int connection, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t now = send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (now <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(now);
    }
    return true;
}

} // namespace

HttpServer::HttpServer(std::string contentType, std::string content, bool endless)
    : contentType_(std::move(contentType)), content_(std::move(content)), endless_(endless) {
    start();
}

HttpServer::~HttpServer() {
    stop();
}

void HttpServer::start() {
    stopping_ = false;
    listen();
    thread_ = std::thread(&HttpServer::accept, this);
}

void HttpServer::stop() {
    if (!thread_.joinable()) {
        return;
    }
    stopping_ = true;
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
    {
        const std::lock_guard lock(mutex_);
        for (const int connection : connections_) {
            shutdown(connection, SHUT_RDWR);
        }
    }
    for (std::thread& server : servers_) {
        server.join();
    }
    servers_.clear();
}

void HttpServer::listen() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port_));
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(listener_, generic, size) != 0 || ::listen(listener_, 8) != 0 ||
        getsockname(listener_, generic, &size) != 0) {
        throw std::runtime_error("no port for the HTTP server");
    }
    port_ = ntohs(address.sin_port);
}

void HttpServer::accept() {
    while (!stopping_) {
        const int connection = ::accept(listener_, nullptr, nullptr);
        if (connection >= 0) {
            {
                const std::lock_guard lock(mutex_);
                connections_.insert(connection);
            }
            servers_.emplace_back(&HttpServer::serve, this, connection);
        }
    }
}

void HttpServer::serve(int connection) {
    std::string request;
    char bytes[1024];
    while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t got = recv(connection, bytes, sizeof bytes, 0);
        if (got <= 0) {
            break;
        }
        request.append(bytes, static_cast<std::size_t>(got));
    }
    const std::string length = endless_ ? "" : "Content-Length: " + std::to_string(content_.size()) + "\r\n";
    bool going = sendAll(connection, "HTTP/1.1 200 OK\r\nContent-Type: " + contentType_ + "\r\n" + length +
                                         "Connection: close\r\n\r\n") &&
                 sendAll(connection, content_);
    while (going && endless_ && !stopping_) {
        sleepMilliseconds(100);
        going = sendAll(connection, content_);
    }
    const std::lock_guard lock(mutex_);
    connections_.erase(connection);
    close(connection);
}

} // namespace KR
