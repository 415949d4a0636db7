#pragma once

#include "krannouncer.hpp"
#include "krddsdomain.hpp"
#include "krddsoptions.hpp"
#include "krincomingcalls.hpp"
#include "krlocalway.hpp"
#include "krpeerdirectory.hpp"
#include "krpulse.hpp"
#include "krsenders.hpp"

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

struct ddsi_domaingv;

namespace KR {

/// A broker's place on a DDS domain: announces its modules, discovers those of others, and carries calls both ways.
///
/// Threads: the engine's receive threads pass requests to call threads and replies to waiting callers; the thread "KRDDS"
/// maintains the directory. None of them ever waits for another process.
class KRLink : public KRTransport {
public:
    static constexpr std::uint32_t kProtocol = 1;
    static constexpr std::string_view kMark =
        "KRVision"; ///< prefix of the user data of a broker's participant

    KRLink(KRDDSOptions options, KRTransportHost& host);
    ~KRLink() override { KRLink::stop(); }

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
    void checkPermissions();
    dds_entity_t createReader(dds_entity_t topic, const dds_qos_t* qos, dds_on_data_available_fn onData);
    void waitForBrokersThatAreThere() const;

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

    // On the thread KRDDS.
    void run() noexcept;
    /// \param news  something has happened since the last tick
    void pollDiscovery(bool news);
    void takeAnnouncements();
    void takeAnnouncement(const void* sample, const dds_sample_info_t& info);
    std::set<dds_instance_handle_t> getAnnouncers() const;
    void openReplies();
    void inquireOfPeers();
    /// Advances this process's pulse, and forgets processes of this host without a pulse.
    void watchPulses();
    /// Counts the processes of this host, some of which may not be discovered yet.
    void countPlaces();
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

    // Constant after start().
    const KRDDSOptions options_;
    KRTransportHost& host_; // not used after stop()
    const std::shared_ptr<KRDDSDomain> domain_;
    KRDDSEntity participant_;
    ddsi_domaingv* engine_ = nullptr;
    std::string id_;
    std::unique_ptr<KRPulse> pulse_; // null: other hosts are reachable, so the engine sends heartbeats
    KRPeer::Connection connection_;
    dds_entity_t announcementReader_ = 0;
    dds_entity_t requestReader_ = 0;
    dds_entity_t replyReader_ = 0;
    std::thread thread_;

    std::atomic<bool> serving_ = false;
    std::atomic<bool> stopping_ = false;
    std::atomic<int> listening_ = 0; // threads of the engine inside functions of this class
    std::atomic<std::uint64_t> malformed_ = 0;
    std::atomic<std::uint64_t> forged_ = 0;
    std::atomic<int> inquiriesAnswered_ = 0; // at the moment

    KRSenders senders_;
    KRLimitedLog forgeries_{"krdds", "messages in another broker's name"};
    KRLimitedLog failures_{"krdds", "failures"};
    KRAnnouncer announcer_;
    const std::shared_ptr<KRIncomingCalls> calls_; // calls that run share it
    KRLocalWay way_;
    KRPeerDirectory directory_;
    std::chrono::steady_clock::time_point lastInquiry_; // this and the next are used by the thread KRDDS
    std::chrono::steady_clock::time_point started_;
    std::chrono::steady_clock::time_point lastBeat_;
    int shownAgain_ = 0;     // times
    std::size_t places_ = 0; // of this host that were taken when it was shown last
    KRPulses pulses_;

    KRMutex requestsMutex_; // held while requests are taken from the reader
    KRMutex wakeMutex_;     // taken last
    KRCondition woken_;
    KRCondition polled_;
    std::atomic<std::uint64_t> announced_ = 0;          // announcements that have come, about
    std::atomic<std::uint64_t> announcementsTaken_ = 0; // of those, when the last poll began
    bool wake_ KR_GUARDED_BY(wakeMutex_) = false;
    std::uint64_t pollsBegun_ KR_GUARDED_BY(wakeMutex_) = 0;
    std::uint64_t pollsDone_ KR_GUARDED_BY(wakeMutex_) = 0;
};

} // namespace KR
