#pragma once

#include "krannouncer.hpp"
#include "krddsdomain.hpp"
#include "krddsoptions.hpp"
#include "krincomingcalls.hpp"
#include "krlocalway.hpp"
#include "krpeerdirectory.hpp"
#include "krpulses.hpp"
#include "krsenders.hpp"

#include <krlocal/krhostdirectory.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krtransport.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct ddsi_domaingv;

namespace KR {

/// A broker's place on a DDS domain: announces its modules, discovers those of others, and carries calls both ways.
///
/// Brokers of the same user on this host meet in the host directory, which costs no messages; the engine ignores them unless
/// calls between them have to use DDS.
///
/// Threads: the engine's receive threads pass requests to call threads and replies to waiting callers; the thread "KRDDS"
/// maintains the directory. None of them ever waits for another process.
class KRLink : public KRTransport {
public:
    static constexpr std::uint32_t kProtocol = 1;
    static constexpr std::string_view kMark =
        "KRVision"; ///< prefix of the user data of a broker's participant

    KRLink(KRDDSOptions options, KRTransportHost& host);
    ~KRLink() override;

    /// Starts serving, and waits until existing brokers are discovered, for about a second at most.
    void start() override;
    void stop() noexcept override;
    void announceModules() noexcept override;
    void claim(const std::string& name) override;
    KRBrokerDiagnostics getDiagnostics() const override;

private:
    template <void (KRLink::*take)()>
    static void onData(dds_entity_t reader, void* link);
    static void onAnnouncement(dds_entity_t reader, void* link);
    /// Whether the engine may keep an announcement. It allocates memory for every identity that a writer names, until
    /// the writer is gone.
    static bool admitAnnouncement(const void* sample, const dds_sample_info_t* info, void* link) noexcept;
    static void onAnnouncerMatched(dds_entity_t reader, dds_subscription_matched_status_t status, void* link);

    void createEntities();
    void joinHostDirectory();
    void checkPermissions();
    dds_entity_t createReader(dds_entity_t topic, const dds_qos_t* qos, dds_on_data_available_fn onData);
    /// \param places  findPlaces() when this one came
    void waitForBrokersThatAreThere(const std::vector<std::uint16_t>& places) const;
    /// Well-known ports that processes of this host listen on.
    std::vector<std::uint16_t> findPlaces() const;

    // On the threads of the engine.
    void noticeRequests() KR_EXCLUDES(requestsMutex_);
    void takeRequests() KR_EXCLUDES(requestsMutex_); // and on the thread KRDDS
    void takeReplies();
    void takeRequest(KRRequest request);
    void answerInquiry(const KRRequest& request);
    /// Whether the message comes from the broker that it names; counts and drops it otherwise.
    bool checkSender(dds_entity_t reader, dds_instance_handle_t writer, const std::string& named);
    void countForged(const std::string& sender, const std::string& named);
    void countMalformed(const char* why);

    // On call threads and threads of the local endpoint.
    /// Admits the process unless the broker is known to belong to another one; logs and counts a refusal.
    KRLocalWay::Admission admit(const std::string& broker, pid_t process);
    void noticeGone(const std::string& broker);
    void noticeCallerGone(const std::string& broker);

    /// Has DDS connect this broker to one that it knows from the host directory. Thread-safe.
    void requireDDS(const std::string& broker) KR_EXCLUDES(overDDSMutex_);

    // On the thread KRDDS.
    void run() noexcept;
    /// \param news  something has happened since the last tick
    void pollDiscovery(bool news);
    /// Takes news from the host directory. \return whether there were any
    bool takeHostNews();
    void takeDeparture(const KRHostDirectory::News& news);
    void acceptOnHost(const std::string& broker, pid_t process, std::string_view text);
    void remove(const std::string& broker, const std::string& why);
    void connectOverDDS() KR_EXCLUDES(overDDSMutex_);
    /// Whether the engine is to ignore the broker. \return whether the engine has discovered it already
    bool ignore(const std::string& broker, bool ignored);
    /// Has the kernel drop what ignored brokers send.
    void filterIgnored();
    void takeAnnouncements();
    void takeAnnouncement(const void* sample, const dds_sample_info_t& info);
    std::set<dds_instance_handle_t> getAnnouncers() const;
    void openReplies();
    void inquireOfPeers();
    /// Shows in the host directory that this process is alive, and repeats its announcement on DDS where that may help.
    void beat();
    /// Has the engine delete participants of this host that it has discovered in vain.
    void forgetIgnored();
    /// Counts the processes of this host that DDS has to discover, some of which may not be discovered yet.
    void countPlaces(const std::vector<std::uint16_t>& places);
    /// Sets the interval of heartbeats: the more other processes, the longer.
    void setHeartbeats();
    /// Has the engine announce this process to all others again.
    void showAgain();

    void wake() KR_EXCLUDES(wakeMutex_);
    /// Waits until a pollDiscovery() that began after this call has finished, or for a limited time.
    void waitForPoll() KR_EXCLUDES(wakeMutex_);
    void settleClaim(const std::string& name, const KRClaimTime& claimed);
    /// Runs the job on a call thread, which may wait for other processes. \return whether one is available
    bool post(std::function<void()> job);

    struct Forgotten {
        std::string broker;
        int beats = 0; // since it was known
    };

    // Constant after start().
    const KRDDSOptions options_;
    KRTransportHost& host_;  // not used after stop()
    const bool meetsOnHost_; // so DDS does not have to discover brokers there
    const std::shared_ptr<KRDDSDomain> domain_;
    KRDDSEntity participant_;
    ddsi_domaingv* engine_ = nullptr;
    std::string id_;
    bool publishesOnHost_ = false;
    KRPeer::Connection connection_;
    dds_entity_t announcementReader_ = 0;
    dds_entity_t requestReader_ = 0;
    dds_entity_t replyReader_ = 0;
    std::thread thread_;

    std::atomic<bool> serving_ = false;
    std::atomic<bool> stopping_ = false;
    std::atomic<bool> hasMet_ = false; // the brokers of this host
    std::atomic<int> listening_ = 0;   // threads of the engine inside functions of this class
    std::atomic<std::uint64_t> malformed_ = 0;
    std::atomic<std::uint64_t> forged_ = 0;
    std::atomic<int> inquiriesAnswered_ = 0; // at the moment
    const std::shared_ptr<std::atomic<int>> callsOverDDS_ = std::make_shared<std::atomic<int>>(0);

    KRSenders senders_;
    KRLimitedLog forgeries_{"krdds", "messages in another broker's name"};
    KRLimitedLog failures_{"krdds", "failures"};
    KRHostDirectory onHost_;
    KRAnnouncer announcer_;
    const std::shared_ptr<KRIncomingCalls> calls_; // calls that run share it
    KRLocalWay way_;
    KRPeerDirectory directory_;
    std::chrono::steady_clock::time_point lastInquiry_; // this and the next are used by the thread KRDDS
    std::chrono::steady_clock::time_point started_;
    std::chrono::steady_clock::time_point lastBeat_;
    bool isHidden_ = meetsOnHost_;           // from the network
    bool ignoresOthers_ = false;             // than the kernel's filter knows
    int shownAgain_ = 0;                     // times
    std::size_t repeats_ = 0;                // of the announcement, because packets may be lost
    std::size_t places_ = 0;                 // of this host that DDS has to discover
    std::set<std::string> connectedOverDDS_; // brokers of this host; used by the thread KRDDS
    std::vector<Forgotten> toForget_;        // the same
    KRPulses pulses_;                        // the same

    KRMutex requestsMutex_; // held while requests are taken from the reader
    KRMutex overDDSMutex_;
    std::set<std::string>
        overDDS_ KR_GUARDED_BY(overDDSMutex_); // brokers of this host to be connected over DDS
    KRMutex wakeMutex_;                        // taken last
    KRCondition polled_;
    std::atomic<std::uint64_t> announced_ = 0;          // announcements that have come, about
    std::atomic<std::uint64_t> announcementsTaken_ = 0; // of those, when the last poll began
    bool wake_ KR_GUARDED_BY(wakeMutex_) = false;
    std::uint64_t pollsBegun_ KR_GUARDED_BY(wakeMutex_) = 0;
    std::uint64_t pollsDone_ KR_GUARDED_BY(wakeMutex_) = 0;
};

} // namespace KR
