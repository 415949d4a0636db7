#pragma once

#include "krplatform/krexport.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace KR {

class KRBroker;

/// Where the server listens, and what it allows.
struct KRWebOptions {
    static constexpr const char* kDefaultAddress = "127.0.0.1:8765"; ///< of this machine only

    /// IP address and port to listen on: "127.0.0.1:8765", "[::1]:8765", "0.0.0.0:8765"; "localhost" is 127.0.0.1. Port 0
    /// is any free one.
    std::string address = kDefaultAddress;
    /// Secret that requests for pictures and WebSockets must contain, 8 to 256 letters, digits, "-", "_", "." and "~";
    /// empty: none.
    std::string token = {};
    /// Whether an address other than loopback is allowed without a token.
    bool open = false;
    /// Refuses calls of services and changes of parameters.
    bool readOnly = false;
    /// Pages of other servers whose scripts may connect, as browsers name them: "https://viewer.example".
    std::vector<std::string> allowedOrigins = {};
    /// Time limit for receiving a request, and for a client to read its data; then its connection is closed.
    std::chrono::milliseconds patience{10'000};
    /// Address of the broker, for display.
    std::string domain = {};
};

/// Reads the token from the first line of a file. \throws std::runtime_error unreadable, or not a token; the text says why
KR_EXPORT std::string readWebToken(const std::string& path);

/// Serves a page that shows what the modules of a broker see, pictures over HTTP, and the Foxglove WebSocket protocol, all
/// at one address (docs/web.md).
///
/// Without connections it queries, subscribes to and encodes nothing. It waits for absent services. Runs its own threads; a
/// module "kr-web-HOST-PROCESS-PORT" receives values from the memory while clients are
/// connected. Thread-safe.
class KR_EXPORT KRWebServer {
public:
    /// Listens from now on.
    /// \throws std::invalid_argument an option is malformed; an address beyond this machine without token and not open
    /// \throws std::runtime_error the address cannot be listened on; the text has it
    KRWebServer(boost::shared_ptr<KRBroker> broker, const KRWebOptions& options);
    /// Closes all connections. Waits for calls of modules that are in progress.
    ~KRWebServer();
    KRWebServer(const KRWebServer&) = delete;
    KRWebServer& operator=(const KRWebServer&) = delete;

    /// The address to open in a browser of this machine: "http://127.0.0.1:8765/". Without the token.
    std::string getUrl() const;
    /// The port listened on.
    int getPort() const noexcept;

private:
    class Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
