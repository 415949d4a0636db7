#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace KR {

/// What the network of this host is like, as far as discovery depends on it.
struct KRHostNetwork {
    bool multicast = false;             ///< all interfaces that may be used for other hosts carry multicast
    std::string loopback;               ///< name of the loopback interface
    bool loopbackMulticast = false;     ///< it carries multicast
    bool alone = false;                 ///< there is no other interface
    std::set<std::uint16_t> takenPorts; ///< UDP ports of this host

    /// Reads it as it is now.
    static KRHostNetwork examine();

    /// Ports where processes of this host are known to listen on the domain.
    std::vector<std::uint16_t> findPlaces(std::uint32_t domain) const;
};

} // namespace KR
