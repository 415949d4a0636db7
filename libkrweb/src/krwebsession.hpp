#pragma once

#include "krwebaccess.hpp"
#include "krwebhub.hpp"

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <chrono>
#include <map>
#include <memory>

namespace KR::web {

using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;

/// A connection, HTTP or WebSocket. Belongs to the thread of the connections, like everything here.
class Connection {
public:
    Connection() = default;
    virtual ~Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    /// Closes the socket, so that what is in progress ends.
    virtual void close() = 0;
};

/// State shared by all connections.
class Connections {
public:
    static constexpr std::size_t kMax = 256;

    Connections(Hub& hub, Access access, std::chrono::milliseconds patience)
        : hub_(hub), access_(std::move(access)), patience_(patience) {}

    Hub& getHub() noexcept { return hub_; }
    /// Time limit for receiving a request, and for a client to read its data.
    std::chrono::milliseconds getPatience() const noexcept { return patience_; }
    const Access& getAccess() const noexcept { return access_; }
    bool isFull() const noexcept { return all_.size() >= kMax; }
    void closeAll() {
        for (const auto& [connection, weak] : std::map(all_)) {
            if (const auto held = weak.lock()) {
                held->close();
            }
        }
    }

    /// Counts a connection during its lifetime.
    class Place {
    public:
        Place() = default;
        Place(Connections& connections, Connection* connection, std::weak_ptr<Connection> weak)
            : connections_(&connections), connection_(connection) {
            connections.all_.insert_or_assign(connection, std::move(weak));
        }
        ~Place() {
            if (connections_ != nullptr) {
                connections_->all_.erase(connection_);
            }
        }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

    private:
        Connections* connections_ = nullptr;
        Connection* connection_ = nullptr;
    };

private:
    Hub& hub_;
    const Access access_;
    const std::chrono::milliseconds patience_;
    std::map<Connection*, std::weak_ptr<Connection>> all_;
};

/// Serves an accepted connection until it ends.
void serveHttp(Connections& connections, boost::asio::ip::tcp::socket socket);
/// Answers a request to become a WebSocket, and serves that.
/// \param received  bytes that the client has sent after the request
void serveWebSocket(Connections& connections, boost::beast::tcp_stream stream, HttpRequest request,
                    boost::beast::flat_buffer received);
/// Whether the request names a supported subprotocol.
bool hasSubprotocol(const HttpRequest& request);

} // namespace KR::web
