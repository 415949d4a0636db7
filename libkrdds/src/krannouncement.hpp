#pragma once

#include <krplatform/krtransport.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

struct KRVision_Announcement;

namespace KR {

/// Wall clock time at which a name was claimed: seconds, microseconds.
using KRClaimTime = std::pair<std::int32_t, std::int32_t>;

/// A module as its broker announces it.
struct KRAnnouncedModule {
    std::int32_t number = 0;
    KRModuleState state = KRModuleState::Claimed;
    KRClaimTime claimed;
    bool asked = false; ///< the broker asks for the name and does not have it yet
};

using KRAnnouncedModules = std::map<std::string, KRAnnouncedModule>; ///< by name

/// What a broker says of itself on the topic "KRVision/Broker", checked.
struct KRAnnouncement {
    static constexpr std::size_t kMaxText = 255; ///< bytes of a module, broker or host name
    static constexpr std::size_t kMaxModules = 10000;
    static constexpr std::size_t kMaxBytes = std::size_t{1} << 20; ///< of the encoded modules

    std::string broker; ///< identity, 32 hexadecimal digits
    std::uint32_t protocol = 0;
    std::string name;
    std::string host;
    std::uint32_t pid = 0;
    std::string local;          ///< what KRLocalWay::reach() takes; empty: nothing
    KRAnnouncedModules modules; ///< empty if the protocol is not `own`

    /// "in process 4711 (kr) on robot1", escaped for printing.
    std::string getLocation() const;

    /// \param own  the protocol whose module lists are understood
    /// \throws KRMalformed not what a broker sends
    static KRAnnouncement parse(const KRVision_Announcement& message, std::uint32_t own);
};

/// Whether the text is a broker's identity: 32 hexadecimal digits in lower case.
bool isBrokerId(const char* text) noexcept;

/// Why there cannot be a module of this name on a domain; empty if there can.
std::string findNameProblem(const std::string& module);

/// The modules as an announcement carries them.
/// \throws KRError more of them than other brokers accept
std::string encodeModules(const KRAnnouncedModules& modules);

} // namespace KR
