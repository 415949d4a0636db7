#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace KR {

/// Properties of this host's network that discovery depends on.
struct KRHostNetwork {
    bool multicast = false;             ///< all interfaces that may be used for other hosts carry multicast
    std::string loopback;               ///< name of the loopback interface
    bool loopbackMulticast = false;     ///< it carries multicast
    bool alone = false;                 ///< there is no other interface
    std::set<std::uint16_t> takenPorts; ///< UDP ports of this host

    /// Reads the current state.
    static KRHostNetwork examine();

    /// UDP ports of this host in use.
    static std::set<std::uint16_t> findTakenPorts();

    /// Well-known ports in use on the domain.
    std::vector<std::uint16_t> findPlaces(std::uint32_t domain) const;
};

} // namespace KR
