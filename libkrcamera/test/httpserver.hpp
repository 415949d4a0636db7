#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace KR {

/// An HTTP server on the loopback interface. Whatever is asked for, it sends one film: once, or as a network camera
/// that never ends.
class HttpServer {
public:
    /// \param endless  send the content again and again, ten times per second
    HttpServer(std::string contentType, std::string content, bool endless);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::string getUri() const { return "http://127.0.0.1:" + std::to_string(port_) + "/camera"; }

    /// Closes all connections and refuses new ones.
    void stop();
    /// Serves again, at the same address.
    void start();

private:
    void listen();
    void accept();
    void serve(int connection);

    const std::string contentType_;
    const std::string content_;
    const bool endless_;
    int port_ = 0;
    int listener_ = -1;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
    std::mutex mutex_;
    std::set<int> connections_;        // guarded by mutex_
    std::vector<std::thread> servers_; // touched by thread_, and when that has ended
};

} // namespace KR
