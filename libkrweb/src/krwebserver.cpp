#include "krwebsession.hpp"

#include <krweb/krweb.hpp>

#include <krplatform/krbroker.hpp>
#include <krplatform/krlogformat.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <stdexcept>
#include <thread>

#include <unistd.h>

namespace KR {

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

constexpr int kSendBuffer = 256 << 10; // bytes that the kernel may hold for a client: what is in it is old
constexpr std::chrono::milliseconds kAcceptPause{100}; // after an error, such as too many open files
constexpr std::chrono::seconds kRefusedInterval{1};    // between lines about connections too many

std::string makeModuleName(int port) {
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    return "kr-web-" + std::string(host.data()) + "-" + std::to_string(::getpid()) + "-" +
           std::to_string(port);
}

} // namespace

class KRWebServer::Private {
public:
    Private(boost::shared_ptr<KRBroker> broker, const KRWebOptions& options)
        : access_(options), listen_(web::parseListenAddress(options.address)), acceptor_(context_),
          pause_(context_) {
        listen(options.address);
        hub_ = std::make_unique<web::Hub>(
            std::move(broker), options.domain, makeModuleName(port_), options.readOnly,
            [this](std::function<void()> function) { asio::post(context_, std::move(function)); });
        connections_ = std::make_unique<web::Connections>(*hub_, access_, options.patience);
        log_ = std::make_unique<KRLogListener>([hub = hub_.get()](const KRLogRecord& record) {
            if (record.category == "krweb") {
                const auto time =
                    std::chrono::duration_cast<std::chrono::milliseconds>(record.time.time_since_epoch());
                hub->addLog({{"time", static_cast<double>(time.count()) / 1000},
                             {"level", getLogLevelName(record.level)},
                             {"category", record.category},
                             {"text", record.message}});
            }
        });
        accept();
        thread_ = std::thread([this] { run(); });
    }

    ~Private() {
        asio::post(context_, [this] {
            acceptor_.close();
            connections_->closeAll();
            hub_->close();
            context_.stop();
        });
        thread_.join();
        log_.reset();
        hub_->stop();
    }
    Private(const Private&) = delete;
    Private& operator=(const Private&) = delete;

    std::string getUrl() const {
        std::string address = listen_.address;
        if (address == "0.0.0.0") {
            address = "127.0.0.1";
        } else if (address == "::") {
            address = "::1";
        }
        const bool isSix = address.find(':') != std::string::npos;
        return "http://" + (isSix ? "[" + address + "]" : address) + ":" + std::to_string(port_) + "/";
    }
    int getPort() const noexcept { return port_; }

private:
    void listen(const std::string& text) {
        try {
            const tcp::endpoint endpoint(asio::ip::make_address(listen_.address), listen_.port);
            acceptor_.open(endpoint.protocol());
            acceptor_.set_option(tcp::acceptor::reuse_address(true));
            acceptor_.bind(endpoint);
            acceptor_.listen();
            port_ = acceptor_.local_endpoint().port();
        } catch (const boost::system::system_error& error) {
            throw std::runtime_error("cannot listen on " + text + ": " + error.code().message());
        }
    }

    void run() noexcept {
        setThreadName("krweb");
        for (;;) {
            try {
                context_.run();
                return;
            } catch (...) { // of one connection: the others continue
                logError("krweb", describeCurrentException());
            }
        }
    }

    void accept() {
        acceptor_.async_accept([this](boost::system::error_code error, tcp::socket socket) {
            if (error == asio::error::operation_aborted) {
                return;
            }
            if (error) {
                logWarning("krweb", "a connection cannot be accepted: " + error.message());
                pause_.expires_after(kAcceptPause);
                pause_.async_wait([this](boost::system::error_code aborted) {
                    if (!aborted) {
                        accept();
                    }
                });
                return;
            }
            try {
                serve(std::move(socket));
            } catch (const std::exception& failure) { // no memory: the next one may do
                logWarning("krweb", std::string("a connection cannot be served: ") + failure.what());
            }
            accept();
        });
    }

    void serve(tcp::socket socket) {
        boost::system::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        socket.set_option(asio::socket_base::send_buffer_size(kSendBuffer), ignored);
        if (connections_->isFull()) {
            ++refused_;
            logRefused();
            constexpr std::string_view kAnswer = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\n"
                                                 "Connection: close\r\n\r\n";
            socket.non_blocking(true, ignored);
            socket.write_some(asio::buffer(kAnswer), ignored); // fits the buffer of a new socket
            return;
        }
        web::serveHttp(*connections_, std::move(socket));
    }

    // At once, then once a second at most.
    void logRefused() {
        if (isLogging_ || refused_ == 0) {
            return;
        }
        logWarning("krweb", "refused " + std::to_string(refused_) +
                                (refused_ == 1 ? " connection" : " connections") + ": there are " +
                                std::to_string(web::Connections::kMax) + " already");
        refused_ = 0;
        isLogging_ = true;
        refusedPause_.expires_after(kRefusedInterval);
        refusedPause_.async_wait([this](boost::system::error_code error) {
            isLogging_ = false;
            if (!error) {
                logRefused();
            }
        });
    }

    const web::Access access_;
    const web::ListenAddress listen_;
    int port_ = 0;
    // Connections, which the context owns, use the members before it.
    std::unique_ptr<web::Hub> hub_;
    std::unique_ptr<web::Connections> connections_;
    asio::io_context context_{1};
    tcp::acceptor acceptor_;
    asio::steady_timer pause_;
    asio::steady_timer refusedPause_{context_};
    std::size_t refused_ = 0; // connections, not logged yet
    bool isLogging_ = false;  // has logged some a moment ago
    std::unique_ptr<KRLogListener> log_;
    std::thread thread_;
};

KRWebServer::KRWebServer(boost::shared_ptr<KRBroker> broker, const KRWebOptions& options)
    : p_(std::make_unique<Private>(std::move(broker), options)) {}

KRWebServer::~KRWebServer() = default;

std::string KRWebServer::getUrl() const {
    return p_->getUrl();
}

int KRWebServer::getPort() const noexcept {
    return p_->getPort();
}

} // namespace KR
