#pragma once

#include "krannouncement.hpp"
#include "krlimitedlog.hpp"
#include "krpeer.hpp"

#include <krplatform/krdiagnostics.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krtransport.hpp>

#include <dds/dds.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace KR {

class KRIncomingCalls;

/// The other brokers on the domain and their modules.
///
/// One thread maintains it, others read it. No lock is held while peers are created or removed, or modules are reported
/// to the host.
class KRPeerDirectory {
public:
    static constexpr std::size_t kMaxBrokers = 1024;
    static constexpr std::size_t kMaxModules = 100000; ///< of all brokers
    static constexpr dds_instance_handle_t kOnHost = DDS_HANDLE_NIL;

    /// \param lease  after which a silent process counts as gone
    KRPeerDirectory(KRTransportHost& host, KRIncomingCalls& calls, KRLocalWay& way,
                    std::chrono::milliseconds lease)
        : host_(host), calls_(calls), way_(way), lease_(lease) {}

    // ---- thread-safe

    std::shared_ptr<KRPeer> find(const std::string& id) const KR_EXCLUDES(mutex_);
    std::vector<std::shared_ptr<KRPeer>> list() const KR_EXCLUDES(mutex_);
    /// Whether a broker has announced itself, even if it was refused, and no connection to it is pending.
    bool isSettled(const std::string& id) const KR_EXCLUDES(mutex_);
    /// Number of brokers that are not in the host directory.
    std::size_t getCountOverDDS() const noexcept { return countOverDDS_; }
    std::size_t getCountOnHost() const KR_EXCLUDES(mutex_);
    /// Whether the broker is known from the host directory.
    bool isOnHost(const std::string& id) const KR_EXCLUDES(mutex_);
    std::vector<std::string> listOnHost() const KR_EXCLUDES(mutex_);
    /// Ports of the processes of all such brokers.
    std::set<std::uint32_t> getPortsOnHost() const KR_EXCLUDES(mutex_);

    struct OtherClaims {
        std::string
            location;       ///< of a module that owns the name, or requested it earlier; empty: there is none
        bool later = false; ///< another broker requested the name later
    };
    OtherClaims findOtherClaims(const std::string& module, const KRClaimTime& claimed,
                                const std::string& own) const KR_EXCLUDES(mutex_);

    /// Nothing listens at the broker's local address any more: poll() removes it. \return whether it is known
    bool noticeGone(const std::string& id) KR_EXCLUDES(mutex_);
    /// Whether modules were recently notified that this caller is gone. Resets this.
    bool takeDeparted(const std::string& id) KR_EXCLUDES(mutex_);

    /// Fills in peers, conflicts and refused messages.
    void describe(KRBrokerDiagnostics& diagnostics) const KR_EXCLUDES(mutex_);

    // ---- on one thread

    /// A broker has announced itself, for the first time or again.
    /// \param writer  publication handle of the announcement; kOnHost: from the host directory
    void accept(const KRPeer::Connection& connection, KRAnnouncement announcement,
                dds_instance_handle_t writer) KR_EXCLUDES(mutex_);
    /// A broker is gone. \param why  for messages: "has left the domain"
    void remove(const std::string& id, const std::string& why) KR_EXCLUDES(mutex_);
    /// Whether poll() has to track the duration of a name conflict.
    bool hasConflicts() const noexcept { return !conflicts_.empty(); }
    /// Removes brokers whose announcement is no longer written, and reports changes of modules to the host.
    /// \param announcers  the existing writers of announcements
    void poll(const std::set<dds_instance_handle_t>& announcers) KR_EXCLUDES(mutex_);

private:
    using Clock = std::chrono::steady_clock;
    struct Neighbor {
        std::shared_ptr<KRPeer> peer; // null: refused
        std::string location;
        std::uint32_t protocol = 0;
        dds_instance_handle_t writer = 0;
        std::uint32_t port = 0;
        KRAnnouncedModules modules;
        bool hostedModules = false; // has announced a callable module
        bool gone = false;          // according to its socket
    };
    struct Registered { // a module known to the host
        std::shared_ptr<KRPeer> peer;
        std::int32_t number = 0;
        std::shared_ptr<KRRemoteModule> module;
    };
    struct Wanted { // a module to be registered with the host
        std::shared_ptr<KRPeer> peer;
        KRAnnouncedModule announced;
    };
    struct Conflict {
        Clock::time_point since;
        bool logged = false;
    };
    using Conflicts =
        std::map<std::pair<std::string, std::string>, std::string>; // module, locations: message

    std::shared_ptr<KRPeer> makePeer(const KRPeer::Connection& connection,
                                     const KRAnnouncement& announcement);
    /// Whether there is room for this broker with so many modules.
    bool hasRoom(const std::string& id, std::size_t modules) const KR_REQUIRES(mutex_);
    void setModules(const std::string& id, Neighbor& neighbor, KRAnnouncedModules modules)
        KR_REQUIRES(mutex_);
    /// Reports the modules to the host whose names or states have changed.
    void registerModules() KR_EXCLUDES(mutex_);
    /// The module to be called by this name. \return nullopt: there is none
    std::optional<Wanted> chooseModule(const std::string& name, bool isOpenHere, Conflicts& conflicts) const
        KR_EXCLUDES(mutex_);
    void logConflicts(const Conflicts& conflicts);
    void closeLater(std::shared_ptr<KRPeer> peer);

    KRTransportHost& host_;
    KRIncomingCalls& calls_;
    KRLocalWay& way_;
    const std::chrono::milliseconds lease_;
    std::atomic<std::uint64_t> refused_ = 0;
    std::atomic<std::size_t> countOverDDS_ = 0; // neighbors

    mutable KRMutex mutex_;
    std::map<std::string, Neighbor> neighbors_ KR_GUARDED_BY(mutex_); // by identity
    std::unordered_map<std::string, std::vector<std::string>>
        hosts_ KR_GUARDED_BY(mutex_);                     // brokers that have announced a module, by its name
    std::set<std::string> changed_ KR_GUARDED_BY(mutex_); // names to be reported
    std::size_t moduleCount_ KR_GUARDED_BY(mutex_) = 0;   // of all neighbors
    std::deque<std::string> departed_ KR_GUARDED_BY(mutex_); // the latest

    // Used on the one thread.
    std::map<std::string, Registered> registered_; // by name
    std::map<Conflicts::key_type, Conflict> conflicts_;
    KRLimitedLog refusals_{"krdds", "brokers that were refused"};
    KRLimitedLog conflictLog_{"krdds", "modules of the same name"};
    KRLimitedLog departures_{"krdds", "brokers that came or went"};
};

} // namespace KR
