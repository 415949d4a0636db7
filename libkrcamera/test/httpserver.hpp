#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>

namespace KR {

/// An HTTP server on the loopback interface. It answers every request with one film: once, or endlessly like a network
/// camera.
class HttpServer {
public:
    struct Options {
        bool endless = false;         ///< send the content again and again, ten times per second
        std::string password = "";    ///< of the user "user"; empty: no authentication
        std::string certificate = ""; ///< file with certificate and key: serve https: instead of http:
    };

    HttpServer(std::string contentType, std::string content, Options options);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// \param user  what precedes the host: "user:password@", or empty
    std::string getUri(const std::string& user = "") const {
        return (options_.certificate.empty() ? "http://" : "https://") + user +
               "127.0.0.1:" + std::to_string(port_) + "/camera";
    }
    /// Number of requests.
    int getRequests() const { return requests_; }

    /// Closes all connections and refuses new ones.
    void stop();
    /// Serves again, at the same address.
    void start();

private:
    void listen();
    void accept();
    void serve(int connection);
    void answer(GIOStream& stream);

    const std::string contentType_;
    const std::string content_;
    const Options options_;
    std::atomic<int> requests_ = 0;
    int port_ = 0;
    int listener_ = -1;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
    std::mutex mutex_;
    std::set<int> connections_;        // guarded by mutex_
    std::vector<std::thread> servers_; // used by thread_, and after it has ended
};

} // namespace KR
