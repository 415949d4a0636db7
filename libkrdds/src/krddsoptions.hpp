#pragma once

#include <chrono>
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

    /// \throws KRError the address is malformed
    static KRDDSOptions parse(const std::string& url);

    /// Configuration of the engine for the domain, as XML.
    std::string getConfiguration() const;
};

} // namespace KR
