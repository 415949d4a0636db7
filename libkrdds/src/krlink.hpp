#pragma once

#include "krddsdomain.hpp"
#include "krddsoptions.hpp"
#include "krpeer.hpp"

#include <krplatform/krtransport.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

namespace KR {

/// A broker's place on a DDS domain: announces its modules, knows those of others, and carries calls both ways.
///
/// Threads: the engine's receive threads hand requests to call threads and replies to those who wait for them; a
/// thread of its own, "KRDDS", keeps the directory. None of them ever waits for another process.
class KRLink : public std::enable_shared_from_this<KRLink> {
public:
    static constexpr std::uint32_t kProtocol = 1;

    KRLink(KRDDSOptions options, KRTransportHost& host);
    ~KRLink();
    KRLink(const KRLink&) = delete;
    KRLink& operator=(const KRLink&) = delete;

    /// Serves, and looks around until the brokers that are there are known, for a second or so at most.
    void start();
    void stop() noexcept;
    void announceModules() noexcept;
    void claim(const std::string& name);

    /// The peer of this identity once it has announced itself; null if it does not.
    std::shared_ptr<KRPeer> waitForPeer(const std::string& id);
    /// A call from another process has been answered, or dropped.
    void forgetCall(const std::string& broker, std::uint64_t sequence);

    KRBrokerDiagnostics getDiagnostics() const;

private:
    class Listening;
    using Stamp = std::pair<std::int32_t, std::int32_t>; // seconds, microseconds of the wall clock
    struct Announced {
        std::int32_t number = 0;
        KRModuleState state = KRModuleState::Claimed;
        Stamp stamp;
        bool asked = false; // for the name, without being sure of it yet
    };
    struct Neighbour {
        std::shared_ptr<KRPeer> peer; // null: refused
        std::string location;
        std::uint32_t protocol = 0;
        std::map<std::string, Announced> modules;
    };
    struct Shown { // a module that the directory has been told of
        std::shared_ptr<KRPeer> peer;
        std::int32_t number = 0;
        std::shared_ptr<KRRemoteModule> module;
    };

    void createEntities();
    void run();
    void wake() noexcept;

    // The directory; with directoryMutex_ held.
    void lookAround();
    void takeAnnouncements();
    void noticeAnnouncement(const void* sample);
    void noticeGone(const std::string& id, const std::string& why);
    void showModules();
    /// Whether all participants that are brokers are neighbours and can be called.
    bool knowsBrokersOf(dds_entity_t participants);
    /// Where another is that has the name or comes before; `waits` says whether one that comes after asks as well.
    std::string findOtherClaim(const std::string& name, const Stamp& stamp, bool& waits) const;
    void settleClaim(const std::string& name);

    void inquireOfPeers();
    void takeRequests();
    void takeReplies();
    void takeRequest(const KRReceivedBytes& message);
    void answerInquiry(const KRRequest& request);
    void countMalformed(const char* why);
    static void onRequests(dds_entity_t reader, void* link);
    static void onReplies(dds_entity_t reader, void* link);
    std::shared_ptr<KRPeer> findPeer(const std::string& id) const;

    // Constant after construction.
    const KRDDSOptions options_;
    KRTransportHost& host_; // not after stop()
    const std::shared_ptr<KRDDSDomain> domain_;
    KRDDSEntity participant_;
    std::string id_;
    std::string hostName_;
    dds_entity_t announcementTopic_ = 0;
    dds_entity_t requestTopic_ = 0;
    dds_entity_t replyTopic_ = 0;
    dds_entity_t announcementWriter_ = 0;
    dds_entity_t announcementReader_ = 0;
    dds_entity_t requestReader_ = 0;
    dds_entity_t replyReader_ = 0;
    dds_entity_t waitset_ = 0;
    dds_entity_t wakeUp_ = 0;
    std::thread thread_;
    std::atomic<bool> serving_ = false;
    std::atomic<bool> stopping_ = false;
    std::atomic<int> listening_ = 0;
    std::atomic<std::uint64_t> malformed_ = 0;

    std::mutex announceMutex_; // held while the announcement is written; taken after directoryMutex_
    std::map<std::string, std::pair<std::uint32_t, Stamp>> claims_; // guarded by announceMutex_: number, when
    std::set<std::string> asked_; // guarded by announceMutex_: names that are being claimed

    mutable std::mutex directoryMutex_;
    std::map<std::string, Neighbour> neighbours_; // guarded by directoryMutex_
    std::map<std::string, Shown> shown_;          // guarded by directoryMutex_
    std::set<std::string> complaints_;            // guarded by directoryMutex_: said once
    std::chrono::steady_clock::time_point lastInquiry_;

    mutable std::mutex peersMutex_;
    std::condition_variable peerCame_;
    std::map<std::string, std::shared_ptr<KRPeer>> peers_; // guarded by peersMutex_: by identity
    // Guarded by peersMutex_: calls from other processes that are not answered yet.
    std::set<std::pair<std::string, std::uint64_t>> served_;
};

} // namespace KR
