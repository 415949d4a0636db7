#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gio/gio.h>

namespace KR {

/// An HTTP server on the loopback interface. Whatever is asked for, it sends one film: once, or as a network camera
/// that never ends.
class HttpServer {
public:
    struct Options {
        bool endless = false;         ///< send the content again and again, ten times per second
        std::string password = "";    ///< of the user "user", whom alone it serves then
        std::string certificate = ""; ///< file with certificate and key: serve https: instead of http:
    };

    HttpServer(std::string contentType, std::string content, Options options);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// \param user  what stands before the host: "user:password@", or nothing
    std::string getUri(const std::string& user = "") const {
        return (options_.certificate.empty() ? "http://" : "https://") + user +
               "127.0.0.1:" + std::to_string(port_) + "/camera";
    }
    /// How often anything has been asked for.
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
    std::vector<std::thread> servers_; // touched by thread_, and when that has ended
};

} // namespace KR
