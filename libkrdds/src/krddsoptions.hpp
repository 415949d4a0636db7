#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// A broker's address "dds:...", taken apart.
struct KRDDSOptions {
    std::uint32_t domain = 0;
    std::string name;
    std::optional<bool> memory; ///< nullopt: not mentioned, which means none
    std::vector<std::string> peers;
    std::vector<std::string> interfaces;
    std::chrono::milliseconds lease{2000};
    std::uint32_t fragment = 65000; ///< bytes
    std::string security;           ///< folder, or empty

    /// \throws KRError an address that is not understood
    static KRDDSOptions parse(const std::string& url);

    /// The engine's configuration for the domain, in its XML.
    std::string getConfiguration() const;
};

} // namespace KR
