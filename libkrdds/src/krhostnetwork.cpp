#include "krhostnetwork.hpp"

#include "krdds/krdds.hpp"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace KR {

namespace {

class Socket {
public:
    Socket() : file_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (file_ >= 0) {
            close(file_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int get() const noexcept { return file_; }

private:
    const int file_;
};

/// Whether multicast works on the loopback interface, which its flags do not show. Sends itself a packet.
bool carriesMulticast(const in_addr& loopback) {
    const Socket receiver;
    const Socket sender;
    ip_mreq group{};
    group.imr_interface = loopback;
    inet_pton(AF_INET, "239.255.0.1", &group.imr_multiaddr);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    socklen_t size = sizeof own;
    if (bind(receiver.get(), reinterpret_cast<const sockaddr*>(&own), size) != 0 ||
        getsockname(receiver.get(), reinterpret_cast<sockaddr*>(&own), &size) != 0 ||
        setsockopt(receiver.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0 ||
        setsockopt(sender.get(), IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback) != 0) {
        return false;
    }
    own.sin_addr = group.imr_multiaddr;
    const char byte = 0;
    if (sendto(sender.get(), &byte, 1, 0, reinterpret_cast<const sockaddr*>(&own), size) != 1) {
        return false;
    }
    constexpr int kPatience_ms = 50; // it is there when sendto() returns, usually
    pollfd readable{receiver.get(), POLLIN, 0};
    return poll(&readable, 1, kPatience_ms) == 1;
}

} // namespace

std::set<std::uint16_t> KRHostNetwork::findTakenPorts() {
    std::set<std::uint16_t> ports;
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream file(table);
        for (std::string line; std::getline(file, line);) {
            const auto colon = line.find(':', line.find(':') + 1); // "   4: 0100007F:1CEA 00000000:0000 07"
            if (colon != std::string::npos) {
                ports.insert(static_cast<std::uint16_t>(std::strtoul(line.c_str() + colon + 1, nullptr, 16)));
            }
        }
    }
    return ports;
}

KRHostNetwork KRHostNetwork::examine() {
    KRHostNetwork network;
    network.takenPorts = findTakenPorts();
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return network;
    }
    network.alone = true;
    network.multicast = true;
    for (const ifaddrs* each = first; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET ||
            (each->ifa_flags & IFF_UP) == 0) {
            continue;
        }
        if ((each->ifa_flags & IFF_LOOPBACK) == 0) {
            network.alone = false;
            network.multicast = network.multicast && (each->ifa_flags & IFF_MULTICAST) != 0;
        } else if (network.loopback.empty()) {
            network.loopback = each->ifa_name;
            network.loopbackMulticast =
                carriesMulticast(reinterpret_cast<const sockaddr_in*>(each->ifa_addr)->sin_addr);
        }
    }
    freeifaddrs(first);
    return network;
}

std::uint16_t getDDSPort(std::uint32_t domain, int index) {
    // Of participant i on domain d: DDSI-RTPS, 9.6.1.1.
    return static_cast<std::uint16_t>(7400 + 250 * static_cast<int>(domain) + 10 + 2 * index);
}

std::vector<std::uint16_t> KRHostNetwork::findPlaces(std::uint32_t domain) const {
    std::vector<std::uint16_t> places;
    for (int i = 0; i < kMaxDDSProcesses; ++i) {
        if (takenPorts.contains(getDDSPort(domain, i))) {
            places.push_back(getDDSPort(domain, i));
        }
    }
    return places;
}

} // namespace KR
