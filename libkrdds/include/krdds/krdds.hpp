#pragma once

#include <krplatform/krexport.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// Lets KRBroker::create() make brokers whose modules can be called from other processes and machines.
///
/// Loading the library already does that; a program calls this so that its linker keeps the library. The address is
/// "dds:" followed by options, for example "dds:?domain=3&memory=here":
///
/// | option | meaning | default |
/// |---|---|---|
/// | `domain` | number of the DDS domain, 0 to 230; brokers of one domain find each other | 0 |
/// | `name` | name of the broker in messages, up to 255 bytes | the program's |
/// | `memory` | `here`: runs the memory module of the domain; `none`: does not | `none` |
/// | `peers` | hosts to look for brokers on, separated by commas; needed where there is no multicast | this host |
/// | `interfaces` | network interfaces to use, separated by commas | one that DDS chooses |
/// | `lease` | seconds of silence after which a process counts as gone, 0.1 to 3600 | 2 |
/// | `fragment` | bytes of a network fragment, 512 to 65000; 1344 suits frames of 1500 bytes | 65000 |
/// | `local` | `on`: brokers of this machine are called through a socket and shared memory; `off`: over DDS, as all others; `group:NAME`: on, and members of that group may connect as well as the same user | `on`; with `security` `off` |
/// | `local-memory` | maximum shared memory for that, in bytes or with K, M or G; 0: none | 256M |
/// | `security` | folder with certificates and permissions, as docs/several-machines.md describes | off |
///
/// If security is asked for and not possible, creating the broker fails with a KRError. Thread-safe.
KR_EXPORT void registerDDS();

/// The parts of an address "dds:...", with the defaults filled in.
struct KRDDSAddress {
    std::uint32_t domain = 0;            ///< number of the DDS domain
    std::string name;                    ///< of the broker in messages
    std::optional<bool> memory;          ///< nullopt: the address does not mention it, which means `none`
    std::vector<std::string> interfaces; ///< network interfaces to use; empty: one that DDS chooses
    bool secure = false;                 ///< whether DDS Security is asked for
};

/// \throws KRError the address is malformed. Thread-safe.
KR_EXPORT KRDDSAddress parseDDSAddress(const std::string& url);

/// Number of well-known ports of a host on a domain. Processes beyond it are discovered by multicast only.
constexpr int kMaxDDSProcesses = 120;

/// UDP port of process `index` of a host, 0 to kMaxDDSProcesses - 1, on a domain. Thread-safe.
KR_EXPORT std::uint16_t getDDSPort(std::uint32_t domain, int index);

} // namespace KR
