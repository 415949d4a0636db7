#pragma once

#include "krhostnetwork.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// The options in a broker's address "dds:...".
struct KRDDSOptions {
    std::uint32_t domain = 0;
    std::string name;
    std::optional<bool> memory; ///< nullopt: not mentioned, which means none
    std::vector<std::string> peers;
    std::vector<std::string> interfaces;
    std::chrono::milliseconds lease{2000};
    std::uint32_t fragment = 65000;                   ///< bytes
    std::string security;                             ///< folder; empty: off
    bool local = true;                                ///< call brokers of this machine without DDS
    std::string localGroup;                           ///< members of it are included; empty: same user only
    std::size_t localMemory = std::size_t{256} << 20; ///< maximum shared memory, bytes

    /// \throws KRError the address is malformed
    static KRDDSOptions parse(const std::string& url);

    /// Whether brokers of one process can share the engine's instance of their domain.
    bool agreesWith(const KRDDSOptions& other) const;
    /// Whether no other host can be reached.
    bool staysOnHost(const KRHostNetwork& network) const;
    /// Whether processes of one host discover each other by multicast.
    bool usesMulticast(const KRHostNetwork& network) const;
    /// Configuration of the engine for the domain, as XML. \param place  whether it listens on one of the
    /// kMaxDDSProcesses well-known ports of its host
    std::string getConfiguration(const KRHostNetwork& network, bool place) const;
};

} // namespace KR
