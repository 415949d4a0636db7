#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace KR::web {

/// A message or part of one, shared by all its receivers.
using Bytes = std::shared_ptr<const std::string>;

inline Bytes share(std::string bytes) {
    return std::make_shared<const std::string>(std::move(bytes));
}

/// Runs a function on the thread of the connections. Thread-safe.
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
    /// Sends a message of a channel. For a slow client, it replaces a queued one of the same subscription.
    virtual void sendNewest(std::uint32_t subscription, std::uint64_t time_ns, const Bytes& payload) = 0;
    /// Sends a message of a channel that must not skip any. \return false: the queue is full, it is lost
    virtual bool sendEach(std::uint32_t subscription, std::uint64_t time_ns, const Bytes& payload) = 0;
    /// A subscription has ended: drops its queued messages.
    virtual void forget(std::uint32_t subscription) = 0;
};

} // namespace KR::web
