#include "krwebassets.hpp"
#include "krwebrequest.hpp"
#include "krwebsession.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <array>
#include <optional>

namespace KR::web {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

constexpr std::size_t kMaxHeader = 16 << 10;            // bytes
constexpr std::size_t kMaxBody = 4 << 10;               // bytes; no request here needs one
constexpr std::chrono::seconds kPictureTime{5};         // for the first picture
constexpr std::chrono::milliseconds kFailureTime{1000}; // for a picture after a failure

constexpr const char* kBoundary = "krvision-picture";

std::string_view toView(boost::beast::string_view text) {
    return {text.data(), text.size()};
}

/// An HTTP connection, which handles one request after another.
class HttpSession final : public Connection, public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(Connections& connections, asio::ip::tcp::socket socket)
        : connections_(connections), stream_(std::move(socket)), patience_(stream_.get_executor()) {}

    void start() {
        place_.emplace(connections_, this, weak_from_this());
        read();
    }

    void close() override {
        isClosed_ = true;
        viewing_.reset();
        patience_.cancel();
        stream_.close();
    }

private:
    using Response = http::response<http::string_body>;

    void read() {
        parser_.emplace();
        parser_->header_limit(kMaxHeader);
        parser_->body_limit(kMaxBody);
        stream_.expires_after(connections_.getPatience()); // for the whole of it
        http::async_read(
            stream_, buffer_, *parser_,
            [self = shared_from_this()](beast::error_code error, std::size_t) { self->handleRead(error); });
    }

    void handleRead(beast::error_code error) {
        const auto end = http::make_error_code(http::error::end_of_stream);
        if (!isClosed_ && !error) {
            handle(parser_->release());
        } else if (isClosed_ || error == end || error.category() != end.category()) { // timeout, reset
            close();
        } else if (error == http::error::header_limit || error == http::error::body_limit ||
                   error == http::error::buffer_overflow) {
            isLast_ = true;
            answer(http::status::payload_too_large, "the request is too long");
        } else {
            isLast_ = true;
            answer(http::status::bad_request, "this is not an HTTP request");
        }
    }

    void handle(HttpRequest request) {
        isHead_ = request.method() == http::verb::head;
        isLast_ = !request.keep_alive();
        version_ = request.version();
        allowOrigin_.clear();
        try {
            route(std::move(request));
        } catch (const BadRequest& error) {
            answer(http::status::bad_request, error.what());
        } catch (const std::exception& error) {
            logWarning("krweb", std::string("a request failed: ") + error.what());
            answer(http::status::internal_server_error, "the request failed; the log has the reason");
        }
    }

    void route(HttpRequest request) {
        if (request.method() != http::verb::get && !isHead_) {
            answer(http::status::method_not_allowed, "only GET and HEAD are answered");
            return;
        }
        const Target target = parseTarget(toView(request.target()));
        const auto token = target.query.find("token");
        RequestOrigin origin;
        origin.host = toView(request[http::field::host]);
        origin.origin = toView(request[http::field::origin]);
        origin.site = toView(request["Sec-Fetch-Site"]);
        origin.mode = toView(request["Sec-Fetch-Mode"]);
        origin.token = token == target.query.end() ? std::string_view() : token->second;
        origin.authorization = toView(request[http::field::authorization]);
        if (const auto refusal = connections_.getAccess().findRefusal(origin)) {
            answer(http::status::forbidden, *refusal);
            return;
        }
        allowOrigin_ = origin.origin;
        const bool isUpgrade = beast::websocket::is_upgrade(request);
        const std::optional<PictureTarget> picture = isUpgrade ? std::nullopt : findPicture(target);
        // The page itself is no secret.
        if ((isUpgrade || picture) && !connections_.getAccess().hasToken(origin)) {
            answer(http::status::unauthorized, "the address needs ?token= and the token of this server");
        } else if (isUpgrade) {
            upgrade(std::move(request));
        } else if (picture) {
            show(*picture);
        } else if (const Asset* asset = findAsset(target.path)) {
            Response response = makeResponse(http::status::ok, asset->type);
            response.body() = asset->content;
            send(std::move(response));
        } else {
            answer(http::status::not_found, "there is no " + escapeText(target.path, 200) +
                                                "; there are /, /camera/N.jpg and /camera/N.mjpeg");
        }
    }

    void upgrade(HttpRequest request) {
        if (!hasSubprotocol(request)) {
            answer(http::status::bad_request,
                   "the WebSocket must speak foxglove.websocket.v1 or foxglove.sdk.v1");
            return;
        }
        isClosed_ = true;
        place_.reset();
        serveWebSocket(connections_, std::move(stream_), std::move(request), std::move(buffer_));
    }

    Response makeResponse(http::status status, std::string_view type) {
        Response response(status, version_);
        response.set(http::field::server, "KRVision");
        response.set(http::field::content_type, beast::string_view(type.data(), type.size()));
        response.set(http::field::cache_control, "no-store");
        response.set("X-Content-Type-Options", "nosniff");
        response.set("X-Frame-Options", "DENY");
        response.set("Referrer-Policy", "no-referrer"); // its address has the token
        response.set("Cross-Origin-Resource-Policy", "same-origin");
        response.set(
            "Content-Security-Policy",
            "default-src 'self'; img-src 'self' blob: data:; style-src 'self' 'unsafe-inline'; "
            "connect-src 'self' ws: wss:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
        if (!allowOrigin_.empty()) {
            response.set(http::field::access_control_allow_origin, allowOrigin_);
            response.set(http::field::vary, "Origin");
        }
        response.keep_alive(!isLast_);
        return response;
    }

    void answer(http::status status, const std::string& text) {
        Response response = makeResponse(status, "text/plain; charset=utf-8");
        response.body() = text + "\n";
        if (status == http::status::method_not_allowed) {
            response.set(http::field::allow, "GET, HEAD");
        }
        send(std::move(response));
    }

    void send(Response response) {
        response.content_length(response.body().size());
        if (isHead_) {
            response.body().clear();
        }
        response_.emplace(std::move(response));
        serializer_.emplace(*response_);
        stream_.expires_after(connections_.getPatience());
        const auto sent = [self = shared_from_this()](beast::error_code error, std::size_t) {
            self->serializer_.reset();
            self->response_.reset();
            if (error || self->isLast_ || self->isClosed_) {
                self->finish();
            } else {
                self->read();
            }
        };
        if (isHead_) {
            http::async_write_header(stream_, *serializer_, sent);
        } else {
            http::async_write(stream_, *serializer_, sent);
        }
    }

    // Sent data arrives before the end.
    void finish() {
        beast::error_code ignored;
        stream_.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
        close();
    }

    void show(const PictureTarget& target) {
        isStream_ = target.isStream && !isHead_;
        hasBegun_ = false;
        failure_ = "the camera has sent no image";
        viewing_ = connections_.getHub().getPictures().view(
            target.picture,
            [weak = weak_from_this(), executor = stream_.get_executor()](const SharedPicture& picture) {
                asio::post(executor, [weak, picture] {
                    if (const auto self = weak.lock()) {
                        self->take(picture);
                    }
                });
            });
        if (!viewing_) {
            answer(http::status::service_unavailable,
                   "too many different pictures are being looked at, at most " +
                       std::to_string(Pictures::kMaxFeeds));
            return;
        }
        giveUpAfter(kPictureTime);
        if (isStream_) {
            watchForEnd();
        }
    }

    void giveUpAfter(std::chrono::milliseconds time) {
        patience_.expires_after(time);
        patience_.async_wait([self = shared_from_this()](beast::error_code error) {
            if (!error && self->viewing_ && !self->hasBegun_ &&
                self->patience_.expiry() <= std::chrono::steady_clock::now()) {
                self->viewing_.reset();
                self->isLast_ = self->isLast_ || self->isStream_;
                self->answer(http::status::service_unavailable, self->failure_);
            }
        });
    }

    void take(const SharedPicture& picture) {
        if (!viewing_ || isClosed_) {
            return;
        }
        if (!picture->failure.empty()) {
            failure_ = picture->failure;
            if (!hasBegun_) {
                giveUpAfter(kFailureTime);
            }
        } else if (isStream_) {
            hasBegun_ = true;
            next_ = picture;
            writePart();
        } else {
            viewing_.reset();
            patience_.cancel();
            Response response = makeResponse(http::status::ok, "image/jpeg");
            response.set("X-Timestamp-Usec", std::to_string(picture->timeStamp));
            response.body() = picture->getJpeg();
            send(std::move(response));
        }
    }

    // The newest picture, when the one before it is on its way.
    void writePart() {
        if (isWriting_ || !next_) {
            return;
        }
        isWriting_ = true;
        part_ = std::move(next_);
        next_.reset();
        const std::string_view jpeg = part_->getJpeg();
        head_.clear();
        if (!isStreaming_) {
            isStreaming_ = true;
            Response response = makeResponse(http::status::ok,
                                             std::string("multipart/x-mixed-replace; boundary=") + kBoundary);
            response.keep_alive(false);
            response.version(10); // its end is that of the connection
            head_ = "HTTP/1.0 200 OK\r\n";
            for (const auto& field : response.base()) {
                head_.append(field.name_string().data(), field.name_string().size()).append(": ");
                head_.append(field.value().data(), field.value().size()).append("\r\n");
            }
            head_ += std::string("\r\n--") + kBoundary;
        }
        head_ += "\r\nContent-Type: image/jpeg\r\nContent-Length: " + std::to_string(jpeg.size()) +
                 "\r\nX-Timestamp-Usec: " + std::to_string(part_->timeStamp) + "\r\n\r\n";
        tail_ = std::string("\r\n--") + kBoundary; // so that a client knows the end without the next part
        const std::array<asio::const_buffer, 3> pieces = {
            asio::buffer(head_), asio::buffer(jpeg.data(), jpeg.size()), asio::buffer(tail_)};
        stream_.expires_after(connections_.getPatience());
        asio::async_write(stream_, pieces, [self = shared_from_this()](beast::error_code error, std::size_t) {
            self->isWriting_ = false;
            self->part_.reset();
            if (error) {
                self->close();
            } else {
                self->writePart();
            }
        });
    }

    // A client of a stream sends nothing more; reading only detects that it leaves.
    void watchForEnd() {
        stream_.expires_never();
        stream_.async_read_some(asio::buffer(unwanted_),
                                [self = shared_from_this()](beast::error_code error, std::size_t) {
                                    if (error) {
                                        self->close();
                                    } else if (!self->isClosed_) {
                                        self->watchForEnd();
                                    }
                                });
    }

    Connections& connections_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_{kMaxHeader + kMaxBody};
    std::optional<http::request_parser<http::string_body>> parser_;
    std::optional<Connections::Place> place_;
    std::optional<Response> response_;
    std::optional<http::response_serializer<http::string_body>> serializer_;
    unsigned version_ = 11;
    bool isHead_ = false;
    bool isLast_ = false; // the connection ends with the answer
    bool isClosed_ = false;
    std::string allowOrigin_;

    // Of a picture.
    asio::steady_timer patience_;
    std::unique_ptr<Pictures::Viewing> viewing_;
    bool isStream_ = false;
    bool hasBegun_ = false; // pictures come
    bool isStreaming_ = false;
    bool isWriting_ = false;
    std::string failure_;
    SharedPicture next_;
    SharedPicture part_; // that is being written
    std::string head_;
    std::string tail_;
    std::array<char, 256> unwanted_{};
};

} // namespace

void serveHttp(Connections& connections, asio::ip::tcp::socket socket) {
    std::make_shared<HttpSession>(connections, std::move(socket))->start();
}

} // namespace KR::web
