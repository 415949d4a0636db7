#pragma once

#include <krplatform/krexport.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// Lets KRBroker::create() make brokers whose modules can be called from other processes and machines.
///
/// Loading this library does it already; a program calls this so that its linker keeps the library. The address is
/// "dds:" with options behind, "dds:?domain=3&memory=here" for instance:
///
/// | option | meaning | default |
/// |---|---|---|
/// | `domain` | number of the DDS domain, 0 to 230; brokers of one domain find each other | 0 |
/// | `name` | of the broker, for people | the program's |
/// | `memory` | `here`: runs the memory module of the domain; `none` | `none` |
/// | `peers` | hosts to look for brokers on, with commas between; needed where there is no multicast | this host |
/// | `interfaces` | network interfaces to use, with commas between | one that DDS chooses |
/// | `lease` | seconds of silence after which a process counts as gone, 0.1 to 3600 | 2 |
/// | `fragment` | bytes of a network fragment, 512 to 65000; 1344 suits frames of 1500 bytes | 65000 |
/// | `security` | folder with the certificates and permissions; docs/several-machines.md tells what is in it | off |
///
/// A broker that is asked for security and cannot have it is refused with a KRError. Thread-safe.
KR_EXPORT void registerDDS();

/// What an address "dds:..." says, with the defaults filled in.
struct KRDDSAddress {
    std::uint32_t domain = 0;
    std::string name;
    std::optional<bool> memory; ///< nullopt: the address does not mention it, which means `none`
    std::vector<std::string> interfaces;
    bool secure = false;
};

/// \throws KRError an address that is not understood. Thread-safe.
KR_EXPORT KRDDSAddress parseDDSAddress(const std::string& url);

/// At most this many processes of one host can be on a domain.
constexpr int kMaxDDSProcesses = 120;

/// UDP port that process `index` of this host, 0 to kMaxDDSProcesses - 1, listens at on a domain.
KR_EXPORT std::uint16_t getDDSPort(std::uint32_t domain, int index);

} // namespace KR
