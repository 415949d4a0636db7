#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace KR::test {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct HttpAnswer {
    int status = 0; ///< 0: the connection ended without an answer
    std::map<std::string, std::string> fields;
    std::string body;
};

/// GET on a separate connection. \param port  of 127.0.0.1
HttpAnswer get(int port, const std::string& target, const Headers& headers = {},
               const std::string& method = "GET");

/// A raw TCP connection to the server, to send what no client library would. Reads and writes block up to 20 s.
class RawConnection {
public:
    explicit RawConnection(int port, int receiveBuffer = 0);
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool write(std::string_view bytes);
    /// Reads until the text or the end of the connection. \return everything read
    std::string readUntil(std::string_view text);
    /// Reads and drops data. \return false: the end, or nothing in time
    bool skip();
    /// \return whether the server closed the connection in time
    bool readToEnd();

private:
    int socket_;
};

/// A client of the protocol. All waits are limited to 20 s.
class WebClient {
public:
    using Json = nlohmann::ordered_json;

    struct Data {
        std::uint32_t subscription;
        std::uint64_t time_ns;
        std::string payload;
    };

    /// \throws std::runtime_error the server refuses
    explicit WebClient(int port, const Headers& headers = {}, const std::string& target = "/",
                       const std::string& subprotocol = "foxglove.websocket.v1");
    ~WebClient();
    WebClient(const WebClient&) = delete;
    WebClient& operator=(const WebClient&) = delete;

    const Json& getServerInfo() const;
    void sendText(const std::string& text);
    void sendBinary(const std::string& bytes);

    /// Waits for a channel. \return its advertisement
    Json waitForChannel(const std::string& topic);
    /// \return whether the channel was unadvertised in time
    bool waitForNoChannel(const std::string& topic);
    Json waitForService(const std::string& name);
    /// \return whether the service was unadvertised in time
    bool waitForNoService(const std::string& name);
    /// Waits for the channel and subscribes. \return number of the subscription
    std::uint32_t subscribe(const std::string& topic);
    void unsubscribe(std::uint32_t subscription);
    /// The next message of a subscription. \throws std::runtime_error none in time
    Data readData(std::uint32_t subscription);
    /// The same as JSON.
    Json readJson(std::uint32_t subscription);
    /// The next text message with this operation. \throws std::runtime_error none in time
    Json readText(const std::string& operation);
    /// Calls a service. \return its answer, or {"failure": text}
    Json call(const std::string& service, const Json& request);
    /// The answer of a call that was sent as bytes.
    Json readAnswer(std::uint32_t call);
    /// \return whether the server ended the connection in time
    bool waitForEnd();

private:
    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR::test
