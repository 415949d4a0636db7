#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace KR::web {

/// A message or a part of one, shared by all that it is on its way to.
using Bytes = std::shared_ptr<const std::string>;

inline Bytes share(std::string bytes) {
    return std::make_shared<const std::string>(std::move(bytes));
}

/// Has a function run on the thread of the connections. Thread-safe.
using Post = std::function<void(std::function<void()>)>;

/// A connected client of the protocol, to which messages go. Belongs to the thread of the connections.
class Client {
public:
    Client() = default;
    virtual ~Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    virtual void sendText(const Bytes& message) = 0;
    virtual void sendBinary(const Bytes& message) = 0;
    /// A message of a channel. While the client is slow, one that waits is replaced by a newer one of its subscription.
    virtual void sendNewest(std::uint32_t subscription, std::uint64_t time_ns, const Bytes& payload) = 0;
    /// A message of a channel of which each counts. \return false: too many wait, it is lost
    virtual bool sendEach(std::uint32_t subscription, std::uint64_t time_ns, const Bytes& payload) = 0;
    /// A subscription has ended: drops what waits.
    virtual void forget(std::uint32_t subscription) = 0;
};

} // namespace KR::web
