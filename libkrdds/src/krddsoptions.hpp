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
    std::uint32_t fragment = 65000; ///< bytes
    std::string security;           ///< folder; empty: off
    bool local = true;              ///< brokers of this machine are called without DDS
    std::string localGroup;         ///< whose members are among them; empty: those of the same user alone
    std::size_t localMemory = std::size_t{256} << 20; ///< most shared memory, bytes

    /// \throws KRError the address is malformed
    static KRDDSOptions parse(const std::string& url);

    /// Whether brokers of one process can share the engine's instance of their domain.
    bool agreesWith(const KRDDSOptions& other) const;
    /// Whether no other host can be reached.
    bool staysOnHost(const KRHostNetwork& network) const;
    /// Whether processes of one host discover each other by multicast.
    bool usesMulticast(const KRHostNetwork& network) const;
    /// Configuration of the engine for the domain, as XML. \param place  whether it listens where others of its host look
    /// for it without multicast, of which there are kMaxDDSProcesses
    std::string getConfiguration(const KRHostNetwork& network, bool place) const;
};

} // namespace KR
