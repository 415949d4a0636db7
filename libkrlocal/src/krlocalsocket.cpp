#include "krlocalsocket.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krthread.hpp>

#include <grp.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <vector>

namespace KR {

namespace {

[[noreturn]] void fail(const char* method, const std::string& why) {
    throw KRError("KRLocalEndpoint", method, why);
}

KRDescriptor createSocket() {
    // Preserves packet boundaries: a thread reads one message and never part of the next.
    KRDescriptor created(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!created) {
        fail("connect", std::string("no socket: ") + std::strerror(errno));
    }
    return created;
}

} // namespace

KRLocalAdmission::KRLocalAdmission(const std::string& group) {
    if (group.empty()) {
        return;
    }
    std::vector<char> room(65536);
    ::group entry{};
    ::group* found = nullptr;
    getgrnam_r(group.c_str(), &entry, room.data(), room.size(), &found);
    if (found == nullptr) {
        fail("create", "there is no group named " + group);
    }
    group_ = found->gr_gid;
}

pid_t KRLocalAdmission::admit(int socket) const {
    ucred other{};
    socklen_t size = sizeof other;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &other, &size) != 0) {
        fail("connect", std::string("the peer's credentials cannot be read: ") + std::strerror(errno));
    }
    if (other.uid == geteuid()) {
        return other.pid;
    }
    if (group_) {
        std::vector<gid_t> groups(65536);
        socklen_t bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        groups.resize(getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) == 0
                          ? bytes / sizeof(gid_t)
                          : 0);
        groups.push_back(other.gid);
        if (std::find(groups.begin(), groups.end(), *group_) != groups.end()) {
            return other.pid;
        }
    }
    fail("connect", "process " + std::to_string(other.pid) + " is of user " + std::to_string(other.uid) +
                        ", this one of user " + std::to_string(geteuid()));
}

std::string getMachineIdentity() {
    // Read once: later no descriptor may be free.
    static const std::string boot = [] {
        std::string id;
        std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
        return id;
    }();
    struct stat network {};
    if (boot.empty() || stat("/proc/self/ns/net", &network) != 0) {
        return {}; // equals no other
    }
    return boot + "/" + std::to_string(network.st_ino);
}

std::string drawSecret() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        fail("create", std::string("no random numbers: ") + std::strerror(errno));
    }
    std::string text;
    for (const unsigned char byte : bytes) {
        constexpr const char* kDigits = "0123456789abcdef";
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

socklen_t toAbstract(const std::string& name, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof address.sun_path) {
        fail("connect", "a socket's name has 1 to " + std::to_string(sizeof address.sun_path - 1) +
                            " bytes, not " + std::to_string(name.size()));
    }
    std::copy(name.begin(), name.end(), address.sun_path + 1); // after the zero byte of abstract names
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

KRDescriptor listenAt(const std::string& name) {
    KRDescriptor listening = createSocket();
    sockaddr_un address{};
    const socklen_t size = toAbstract(name, address);
    if (bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        listen(listening.get(), 128) != 0) {
        fail("create", "a socket cannot listen: " + std::string(std::strerror(errno)));
    }
    return listening;
}

KRDescriptor connectTo(const std::string& name, std::chrono::steady_clock::time_point deadline) {
    sockaddr_un address{};
    const socklen_t size = toAbstract(name, address);
    KRDescriptor connecting = createSocket();
    // While the backlog is full, connect() would block without a time limit.
    const timeval shortly{0, 10000};
    setsockopt(connecting.get(), SOL_SOCKET, SO_SNDTIMEO, &shortly, sizeof shortly);
    while (connect(connecting.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        const bool busy = errno == EAGAIN || errno == EINTR;
        if (errno == ECONNREFUSED) {
            return {};
        }
        if (!busy || std::chrono::steady_clock::now() >= deadline) {
            fail("connect", busy ? "the other process does not accept the connection" : std::strerror(errno));
        }
    }
    const timeval forever{0, 0};
    setsockopt(connecting.get(), SOL_SOCKET, SO_SNDTIMEO, &forever, sizeof forever);
    return connecting;
}

} // namespace KR
