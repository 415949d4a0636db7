#include "httpserver.hpp"

#include <krplatform/krthread.hpp>

#include <arpa/inet.h>
#include <memory>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace KR {

namespace {

struct Release {
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
    void operator()(gchar* text) const noexcept { g_free(text); }
};
template <class T>
using Handle = std::unique_ptr<T, Release>;

/// A connection, with TLS or without. Closes it.
Handle<GIOStream> makeStream(int connection, const std::string& certificate) {
    const Handle<GSocket> socket(g_socket_new_from_fd(connection, nullptr));
    Handle<GIOStream> plain(G_IO_STREAM(g_socket_connection_factory_create_connection(socket.get())));
    if (certificate.empty()) {
        return plain;
    }
    const Handle<GTlsCertificate> own(g_tls_certificate_new_from_file(certificate.c_str(), nullptr));
    return Handle<GIOStream>(g_tls_server_connection_new(plain.get(), own.get(), nullptr));
}

bool sendAll(GIOStream* stream, const std::string& bytes) {
    return g_output_stream_write_all(g_io_stream_get_output_stream(stream), bytes.data(), bytes.size(),
                                     nullptr, nullptr, nullptr) == TRUE;
}

/// The header up to the empty line; empty if it does not arrive.
std::string receiveRequest(GIOStream* stream) {
    std::string request;
    char bytes[1024];
    while (request.find("\r\n\r\n") == std::string::npos) {
        const gssize got =
            g_input_stream_read(g_io_stream_get_input_stream(stream), bytes, sizeof bytes, nullptr, nullptr);
        if (got <= 0) {
            return {};
        }
        request.append(bytes, static_cast<std::size_t>(got));
    }
    return request;
}

std::string encode(const std::string& text) {
    const Handle<gchar> encoded(g_base64_encode(reinterpret_cast<const guchar*>(text.data()), text.size()));
    return encoded.get();
}

} // namespace

HttpServer::HttpServer(std::string contentType, std::string content, Options options)
    : contentType_(std::move(contentType)), content_(std::move(content)), options_(std::move(options)) {
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
    Handle<GIOStream> stream = makeStream(connection, options_.certificate);
    answer(*stream);
    const std::lock_guard lock(mutex_);
    connections_.erase(connection);
    stream.reset(); // from here on, its number may be reused
}

void HttpServer::answer(GIOStream& stream) {
    const std::string request = receiveRequest(&stream);
    if (request.empty()) {
        return;
    }
    ++requests_;
    if (!options_.password.empty() &&
        request.find("Authorization: Basic " + encode("user:" + options_.password) + "\r\n") ==
            std::string::npos) {
        sendAll(&stream, "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"camera\"\r\n"
                         "Content-Length: 0\r\nConnection: close\r\n\r\n");
        return;
    }
    const std::string length =
        options_.endless ? "" : "Content-Length: " + std::to_string(content_.size()) + "\r\n";
    bool going = sendAll(&stream, "HTTP/1.1 200 OK\r\nContent-Type: " + contentType_ + "\r\n" + length +
                                      "Connection: close\r\n\r\n") &&
                 sendAll(&stream, content_);
    while (going && options_.endless && !stopping_) {
        sleepMilliseconds(100);
        going = sendAll(&stream, content_);
    }
}

} // namespace KR
