#pragma once

#include <krplatform/krtransport.hpp>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
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
    bool asked = false; ///< the broker requests the name but does not own it yet

    bool operator==(const KRAnnouncedModule&) const = default;
};

using KRAnnouncedModules = std::map<std::string, KRAnnouncedModule>; ///< by name

/// A broker's announcement on the topic "KRVision/Broker", validated.
struct KRAnnouncement {
    static constexpr std::size_t kMaxText = 255; ///< bytes of a module, broker or host name
    static constexpr std::size_t kMaxModules = 10000;
    static constexpr std::size_t kMaxBytes = std::size_t{1} << 20; ///< of the encoded modules

    std::string broker; ///< identity, 32 hexadecimal digits
    std::uint32_t protocol = 0;
    std::string name;
    std::string host;
    std::uint32_t pid = 0;
    std::string local;          ///< argument of KRLocalWay::reach(); empty: none
    std::uint32_t port = 0;     ///< of its process; 0: unknown
    KRAnnouncedModules modules; ///< empty if the protocol is not `own`

    /// "in process 4711 (kr) on robot1", escaped for printing.
    std::string getLocation() const;

    /// \param own  the protocol version whose module lists are read
    /// \throws KRMalformed not a valid announcement
    static KRAnnouncement parse(const KRVision_Announcement& message, std::uint32_t own);
};

/// What a broker publishes for others on its host: its announcement, and more.
struct KRHostAnnouncement {
    KRAnnouncement announcement;
    std::set<std::string> overDDS; ///< identities of brokers that it calls over DDS

    /// \param local  see KRAnnouncement::local
    static std::string compose(const KRVision_Announcement& message, const std::string& local,
                               std::uint32_t port, const std::set<std::string>& overDDS);
    /// \param own  as for KRAnnouncement::parse() \throws KRMalformed
    static KRHostAnnouncement parse(std::string_view text, std::uint32_t own);
};

/// Whether the text is a broker's identity: 32 hexadecimal digits in lower case.
bool isBrokerId(const char* text) noexcept;

/// Why this is not a valid module name on a domain; empty if it is.
std::string findNameProblem(const std::string& module);

/// The modules in the encoding of announcements.
/// \throws KRError more modules than other brokers accept
std::string encodeModules(const KRAnnouncedModules& modules);

} // namespace KR
