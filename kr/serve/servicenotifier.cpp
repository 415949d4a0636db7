#include "serve/servicenotifier.hpp"

#include <krplatform/krlog.hpp>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace KR::tool {

namespace {

std::string takeVariable(const char* name) {
    const char* const value = std::getenv(name);
    std::string text = value == nullptr ? "" : value;
    ::unsetenv(name);
    return text;
}

std::optional<std::int64_t> parse(std::string_view text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number > 0 ? std::optional(number)
                                                                                  : std::nullopt;
}

} // namespace

ServiceNotifier::ServiceNotifier() : address_(takeVariable("NOTIFY_SOCKET")) {
    const auto timeout_usec = parse(takeVariable("WATCHDOG_USEC"));
    const std::string process = takeVariable("WATCHDOG_PID");
    if (timeout_usec && (process.empty() || parse(process) == ::getpid())) {
        alivePeriod_ = std::chrono::microseconds(*timeout_usec / 3);
    }
    if (address_.empty()) {
        return;
    }
    const bool isKnown = address_.size() > 1 && (address_.front() == '/' || address_.front() == '@');
    if (!isKnown || address_.size() >= sizeof(sockaddr_un::sun_path)) {
        logWarning("kr.serve", "NOTIFY_SOCKET is not the path of a socket or an abstract name: " + address_);
        address_.clear();
        return;
    }
    socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

ServiceNotifier::~ServiceNotifier() {
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

void ServiceNotifier::reportReloading() const {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.tv_sec * 1'000'000 + now.tv_nsec / 1000) + "\n");
}

void ServiceNotifier::send(const std::string& message) const {
    if (address_.empty()) {
        return;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, address_.data(), address_.size());
    if (address_.front() == '@') { // an abstract name begins with a zero byte
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
    if (::sendto(socket_, message.data(), message.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), size) < 0) {
        logWarning("kr.serve",
                   "the service manager cannot be reached at " + address_ + ": " + std::strerror(errno));
    }
}

} // namespace KR::tool
