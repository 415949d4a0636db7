#include "krwebsession.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <array>
#include <cassert>
#include <deque>
#include <map>

namespace KR::web {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;

constexpr std::size_t kMaxMessage = 1 << 20;  // bytes, of a client
constexpr std::size_t kMaxEach = 4 << 20;     // bytes of messages that wait, of which each counts
constexpr std::size_t kMaxWaiting = 16 << 20; // bytes; a client with more is dropped
constexpr std::size_t kQueuedCost = 256;      // bytes of memory of a message that waits, beside its payload
constexpr std::size_t kKeptBuffer = 64 << 10; // bytes, between messages of a client
constexpr std::chrono::seconds kIdle{30};     // without a sign of life

std::string_view findSubprotocol(const HttpRequest& request) {
    const auto field = request[beast::http::field::sec_websocket_protocol];
    for (const auto& offered : beast::http::token_list(field)) {
        const auto known = std::ranges::find(kSubprotocols, std::string_view(offered.data(), offered.size()));
        if (known != kSubprotocols.end()) {
            return *known;
        }
    }
    return {};
}

/// A TCP stream some bytes of which have been read already: reading starts with them.
class ResumedStream : public beast::buffered_read_stream<beast::tcp_stream, beast::flat_buffer> {
public:
    ResumedStream(beast::tcp_stream stream, beast::flat_buffer received)
        : buffered_read_stream(std::move(stream)) {
        buffer() = std::move(received);
    }
};

/// Called by the WebSocket to end the connection.
template <class Handler>
void async_teardown(beast::role_type role, ResumedStream& stream, Handler&& handler) {
    async_teardown(role, stream.next_layer(), std::forward<Handler>(handler));
}

class WebSocket final : public Connection, public Client, public std::enable_shared_from_this<WebSocket> {
public:
    WebSocket(Connections& connections, beast::tcp_stream stream, beast::flat_buffer received)
        : connections_(connections), peer_(describe(stream)), stream_(std::move(stream), std::move(received)),
          stall_(stream_.get_executor()) {}
    ~WebSocket() override {
        if (isKnown_) { // after an exception
            connections_.getHub().remove(*this);
        }
    }

    void start(const HttpRequest& request) {
        place_.emplace(connections_, this, weak_from_this());
        beast::get_lowest_layer(stream_).expires_never(); // the layer above has times of its own
        stream_.set_option(websocket::stream_base::timeout{connections_.getPatience(), kIdle, true});
        const std::string protocol(findSubprotocol(request));
        stream_.set_option(websocket::stream_base::decorator([protocol](websocket::response_type& response) {
            response.set(beast::http::field::sec_websocket_protocol, protocol);
        }));
        stream_.read_message_max(kMaxMessage);
        stream_.auto_fragment(false);
        stream_.async_accept(request, [self = shared_from_this()](beast::error_code error) {
            if (!error && !self->isClosed_) {
                self->isKnown_ = true;
                self->connections_.getHub().add(*self);
                self->read();
            }
        });
    }

    void close() override {
        if (isClosed_) {
            return;
        }
        isClosed_ = true;
        stall_.cancel();
        if (isKnown_) {
            isKnown_ = false;
            connections_.getHub().remove(*this);
        }
        beast::get_lowest_layer(stream_).close();
    }

    void sendText(const Bytes& message) override { queue({message, {}, {}, true}); }
    void sendBinary(const Bytes& message) override { queue({message, {}, {}, false}); }
    void sendNewest(std::uint32_t subscription, std::uint64_t time_ns, const Bytes& payload) override {
        if (isClosed_) {
            return;
        }
        const auto [place, isNew] = newest_.try_emplace(subscription);
        newestBytes_ -= isNew ? 0 : getCost(place->second.payload);
        newestBytes_ += getCost(payload);
        place->second = {payload, time_ns};
        if (isNew) {
            turn_.push_back(subscription);
        }
        checkWaiting();
        write();
    }
    bool sendEach(std::uint32_t subscription, std::uint64_t time_ns, const Bytes& payload) override {
        if (isClosed_ || queuedBytes_ > kMaxEach) {
            return false;
        }
        queue({payload, encodeDataHeader(subscription, time_ns), subscription, false});
        return true;
    }
    void forget(std::uint32_t subscription) override {
        const auto found = newest_.find(subscription);
        if (found != newest_.end()) {
            newestBytes_ -= getCost(found->second.payload);
            newest_.erase(found);
            std::erase(turn_, subscription);
        }
        std::erase_if(queue_, [&](const Message& message) {
            const bool isOf = message.subscription == subscription;
            queuedBytes_ -= isOf ? getCost(message.payload) : 0;
            return isOf;
        });
    }

private:
    struct Message {
        Bytes payload;
        std::optional<DataHeader> header;
        std::optional<std::uint32_t> subscription;
        bool isText = false;
    };
    struct Newest {
        Bytes payload;
        std::uint64_t time_ns = 0;
    };

    static std::size_t getCost(const Bytes& payload) { return payload->size() + kQueuedCost; }

    static std::string describe(const beast::tcp_stream& stream) {
        beast::error_code error;
        const auto endpoint = stream.socket().remote_endpoint(error);
        return error ? "a client" : endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
    }

    void queue(Message message) {
        if (isClosed_) {
            return;
        }
        queuedBytes_ += getCost(message.payload);
        queue_.push_back(std::move(message));
        checkWaiting();
        write();
    }

    // Drops the client asynchronously, as this may be inside a call of the hub.
    void checkWaiting() {
        if (queuedBytes_ + newestBytes_ > kMaxWaiting) {
            drop("more than " + std::to_string(kMaxWaiting >> 20) + " MiB wait for it");
        }
    }
    void drop(const std::string& why) {
        if (isDropped_) {
            return;
        }
        isDropped_ = true;
        logWarning("krweb", "dropped " + peer_ + ": " + why);
        asio::post(stream_.get_executor(), [self = shared_from_this()] { self->close(); });
    }

    void write() {
        if (isWriting_ || isClosed_ || isDropped_ || (queue_.empty() && turn_.empty())) {
            return;
        }
        isWriting_ = true;
        if (!queue_.empty()) {
            writing_ = std::move(queue_.front());
            queue_.pop_front();
            assert(queuedBytes_ >= getCost(writing_.payload));
            queuedBytes_ -= getCost(writing_.payload);
        } else {
            const std::uint32_t subscription = turn_.front();
            turn_.pop_front();
            const auto newest = newest_.find(subscription);
            assert(newest != newest_.end() && newestBytes_ >= getCost(newest->second.payload));
            newestBytes_ -= getCost(newest->second.payload);
            writing_ = {std::move(newest->second.payload),
                        encodeDataHeader(subscription, newest->second.time_ns), subscription, false};
            newest_.erase(newest);
        }
        stall_.expires_after(connections_.getPatience());
        stall_.async_wait([self = shared_from_this()](beast::error_code error) {
            // If the timer expired just before the write completed, another wait has replaced it.
            if (!error && self->isWriting_ && self->stall_.expiry() <= std::chrono::steady_clock::now()) {
                self->drop("it did not read for " + std::to_string(self->connections_.getPatience().count()) +
                           " ms");
            }
        });
        stream_.text(writing_.isText);
        const std::array<asio::const_buffer, 2> pieces = {writing_.header ? asio::buffer(*writing_.header)
                                                                          : asio::const_buffer(),
                                                          asio::buffer(*writing_.payload)};
        stream_.async_write(pieces, [self = shared_from_this()](beast::error_code error, std::size_t) {
            self->stall_.cancel();
            self->isWriting_ = false;
            self->writing_ = {};
            if (error) {
                self->close();
            } else {
                self->write();
            }
        });
    }

    void read() {
        stream_.async_read(buffer_, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error || self->isClosed_ || self->isDropped_) {
                if (error == websocket::error::message_too_big) {
                    logWarning("krweb", "dropped " + self->peer_ + ": a message of more than " +
                                            std::to_string(kMaxMessage >> 20) + " MiB");
                }
                self->close();
                return;
            }
            self->handle();
            self->buffer_.consume(self->buffer_.size());
            if (self->buffer_.capacity() > kKeptBuffer) {
                self->buffer_.shrink_to_fit();
            }
            self->read();
        });
    }

    void handle() {
        const auto data = buffer_.cdata();
        const auto* bytes = static_cast<const unsigned char*>(data.data());
        try {
            if (stream_.got_text()) {
                connections_.getHub().handleText(
                    *this, std::string_view(reinterpret_cast<const char*>(bytes), data.size()));
            } else {
                connections_.getHub().handleBinary(*this, std::span(bytes, data.size()));
            }
        } catch (const std::exception& error) { // no memory, no thread
            drop(std::string("a message of it failed: ") + error.what());
        }
    }

    Connections& connections_;
    const std::string peer_;
    websocket::stream<ResumedStream> stream_;
    asio::steady_timer stall_;
    beast::flat_buffer buffer_;
    std::optional<Connections::Place> place_;
    bool isKnown_ = false; // to the hub
    bool isClosed_ = false;
    bool isDropped_ = false;
    bool isWriting_ = false;
    Message writing_;
    std::deque<Message> queue_;
    std::size_t queuedBytes_ = 0;
    std::map<std::uint32_t, Newest> newest_; // by subscription
    std::deque<std::uint32_t> turn_; // the subscriptions of `newest_`, the one that waits longest first
    std::size_t newestBytes_ = 0;
};

} // namespace

bool hasSubprotocol(const HttpRequest& request) {
    return !findSubprotocol(request).empty();
}

void serveWebSocket(Connections& connections, beast::tcp_stream stream, HttpRequest request,
                    beast::flat_buffer received) {
    // The request must outlive async_accept's start alone.
    std::make_shared<WebSocket>(connections, std::move(stream), std::move(received))->start(request);
}

} // namespace KR::web
