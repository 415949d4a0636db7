#include "krlink.hpp"

#include "krremotecall.hpp"
#include "krserdata.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krthread.hpp>

#include "krvision.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace KR {

namespace {

constexpr const char* kCategory = "krdds";
constexpr std::chrono::seconds kInquiryAge{1}; // of a call that is asked about, and how often
constexpr int kLook_ms = 10;
constexpr int kFewestLooks = 10;
constexpr int kLooksAlone = 30; // on a busy machine it takes a while until somebody is heard of at all
constexpr int kMostLooks = 100;
constexpr std::string_view kBrokerMark = "KRVision"; // user data of a participant that is a broker
constexpr std::chrono::seconds kAnnouncementPatience{10};

using Qos = std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)>;

Qos createQos(bool transientLocal, const std::string& partition) {
    Qos qos(dds_create_qos(), dds_delete_qos);
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_INFINITY);
    if (transientLocal) {
        dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
        dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
    } else {
        dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
        dds_qset_partition1(qos.get(), partition.c_str());
    }
    return qos;
}

std::string toText(const dds_guid_t& guid) {
    std::string text;
    for (const std::uint8_t byte : guid.v) {
        constexpr const char* kDigits = "0123456789abcdef";
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

bool isBroker(const dds_builtintopic_participant_t& participant) {
    void* mark = nullptr;
    std::size_t size = 0;
    if (!dds_qget_userdata(participant.qos, &mark, &size)) {
        return false;
    }
    const bool is = std::string_view(static_cast<const char*>(mark), size) == kBrokerMark;
    dds_free(mark);
    return is;
}

std::string getHostName() {
    utsname names{};
    return uname(&names) == 0 ? names.nodename : "";
}

} // namespace

KRLink::KRLink(KRDDSOptions options, KRTransportHost& host)
    : options_(std::move(options)), host_(host), domain_(KRDDSDomain::join(options_)),
      hostName_(getHostName()) {}

KRLink::~KRLink() = default;

void KRLink::createEntities() {
    const Qos marked(dds_create_qos(), dds_delete_qos);
    dds_qset_userdata(marked.get(), kBrokerMark.data(), kBrokerMark.size());
    participant_ = KRDDSEntity(checkDDS(dds_create_participant(options_.domain, marked.get(), nullptr),
                                        options_.security.empty()
                                            ? "participant"
                                            : "participant with the credentials in " + options_.security));
    const dds_entity_t participant = participant_.get();
    dds_guid_t guid{};
    checkDDS(dds_get_guid(participant, &guid), "identity");
    id_ = toText(guid);

    announcementTopic_ = checkDDS(
        dds_create_topic(participant, &KRVision_Announcement_desc, "KRVision/Broker", nullptr, nullptr),
        "topic");
    const std::string prefix = "KRVision/" + std::to_string(kProtocol);
    requestTopic_ = createMessageTopic(participant, (prefix + "/Request").c_str(), "KRVision::Request");
    replyTopic_ = createMessageTopic(participant, (prefix + "/Reply").c_str(), "KRVision::Reply");

    const auto createReader = [&](dds_entity_t topic, const Qos& qos, dds_on_data_available_fn onData) {
        const std::unique_ptr<dds_listener_t, void (*)(dds_listener_t*)> listener(dds_create_listener(this),
                                                                                  dds_delete_listener);
        if (onData != nullptr) {
            dds_lset_data_available(listener.get(), onData);
        }
        return checkDDS(dds_create_reader(participant, topic, qos.get(), listener.get()), "reader");
    };
    const Qos announcementQos = createQos(true, "");
    dds_qset_ignorelocal(announcementQos.get(), DDS_IGNORELOCAL_PARTICIPANT);
    const Qos messageQos = createQos(false, id_);
    requestReader_ = createReader(requestTopic_, messageQos, onRequests);
    replyReader_ = createReader(replyTopic_, messageQos, onReplies);
    announcementReader_ = createReader(announcementTopic_, announcementQos, nullptr);
    const Qos announcerQos = createQos(true, "");
    dds_qset_writer_data_lifecycle(announcerQos.get(),
                                   false); // so that a lost broker differs from one that leaves
    announcementWriter_ =
        checkDDS(dds_create_writer(participant, announcementTopic_, announcerQos.get(), nullptr), "writer");

    wakeUp_ = checkDDS(dds_create_guardcondition(participant), "condition");
    waitset_ = checkDDS(dds_create_waitset(participant), "waitset");
    checkDDS(dds_set_status_mask(announcementReader_, DDS_DATA_AVAILABLE_STATUS), "status mask");
    checkDDS(dds_waitset_attach(waitset_, announcementReader_, 0), "waitset");
    checkDDS(dds_waitset_attach(waitset_, wakeUp_, 0), "waitset");
}

void KRLink::start() {
    createEntities();
    serving_ = true;
    takeRequests();
    takeReplies();
    announceModules();
    thread_ = std::thread([this] { run(); });
    const KRDDSEntity participants(
        checkDDS(dds_create_reader(participant_.get(), DDS_BUILTIN_TOPIC_DCPSPARTICIPANT, nullptr, nullptr),
                 "reader"));
    for (int looks = 1; looks <= kMostLooks; ++looks) {
        sleepMilliseconds(kLook_ms);
        const std::lock_guard lock(directoryMutex_);
        if (looks >= (neighbours_.empty() ? kLooksAlone : kFewestLooks) &&
            knowsBrokersOf(participants.get())) {
            break;
        }
    }
    logInfo(kCategory, "broker " + options_.name + " is on DDS domain " + std::to_string(options_.domain));
}

// That a broker is there is known before its modules are.
bool KRLink::knowsBrokersOf(dds_entity_t participants) {
    constexpr std::uint32_t kMost = 1000;
    std::vector<void*> samples(kMost);
    std::vector<dds_sample_info_t> info(kMost);
    const dds_return_t count = dds_read(participants, samples.data(), info.data(), kMost, kMost);
    bool all = true;
    for (dds_return_t i = 0; i < count && all; ++i) {
        const auto& participant = *static_cast<const dds_builtintopic_participant_t*>(samples[i]);
        if (info[i].instance_state == DDS_ALIVE_INSTANCE_STATE && isBroker(participant)) {
            const std::string id = toText(participant.key);
            const auto found = neighbours_.find(id);
            all = id == id_ || (found != neighbours_.end() &&
                                (!found->second.peer || found->second.peer->readsRequests()));
        }
    }
    if (count > 0) {
        dds_return_loan(participants, samples.data(), count);
    }
    return all;
}

void KRLink::wake() noexcept {
    dds_set_guardcondition(wakeUp_, true);
}

void KRLink::stop() noexcept {
    if (stopping_.exchange(true) || participant_.get() == 0) {
        return;
    }
    // Its absence tells the others; first, so that they call no more.
    KRVision_Announcement self{};
    self.broker = id_.data();
    dds_dispose(announcementWriter_, &self);
    dds_delete(requestReader_);
    if (thread_.joinable()) {
        wake();
        thread_.join();
    }
    std::map<std::string, std::shared_ptr<KRPeer>> peers;
    {
        const std::lock_guard lock(peersMutex_);
        peers = peers_;
        peerCame_.notify_all();
    }
    for (const auto& [id, peer] : peers) {
        peer->setGone("this process is leaving the domain");
    }
    dds_delete(replyReader_);
    while (listening_ > 0) { // none for long: they do not wait for anything
        sleepMilliseconds(1);
    }
}

void KRLink::run() {
    setThreadName("KRDDS");
    while (!stopping_) {
        dds_attach_t triggered[8];
        // Also without a trigger now and then, to ask after calls.
        dds_waitset_wait(waitset_, triggered, 8, DDS_MSECS(200));
        dds_set_guardcondition(wakeUp_, false);
        if (stopping_) {
            return;
        }
        {
            const std::lock_guard lock(directoryMutex_);
            lookAround();
        }
        inquireOfPeers();
    }
}

/// What the engine has received, on its own threads. Counted, so that stop() knows when none is left.
class KRLink::Listening {
public:
    explicit Listening(KRLink& link) noexcept : link_(link) { link_.listening_.fetch_add(1); }
    ~Listening() { link_.listening_.fetch_sub(1); }
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;
    /// What came before start() waits for it.
    bool mayTake() const noexcept { return link_.serving_; }

private:
    KRLink& link_;
};

void KRLink::onRequests(dds_entity_t, void* given) {
    KRLink& link = *static_cast<KRLink*>(given);
    if (const Listening listening(link); listening.mayTake()) {
        link.takeRequests();
    }
}

void KRLink::onReplies(dds_entity_t, void* given) {
    KRLink& link = *static_cast<KRLink*>(given);
    if (const Listening listening(link); listening.mayTake()) {
        link.takeReplies();
    }
}

void KRLink::takeReplies() {
    takeMessages(replyReader_, [this](const KRReceivedBytes& message) {
        try {
            KRReply reply = KRReply::parse(message);
            if (const auto peer = findPeer(reply.broker)) {
                peer->takeReply(std::move(reply));
            }
        } catch (const KRMalformed& error) {
            countMalformed(error.what());
        }
    });
}

void KRLink::takeRequests() {
    takeMessages(requestReader_, [this](const KRReceivedBytes& message) {
        try {
            takeRequest(message);
        } catch (const KRMalformed& error) {
            countMalformed(error.what());
        }
    });
}

void KRLink::takeRequest(const KRReceivedBytes& message) {
    KRRequest request = KRRequest::parse(message);
    if (stopping_) {
        return;
    }
    if (request.kind == KRRequest::Inquiry) {
        answerInquiry(request);
        return;
    }
    const KRValue arguments = request.arguments.decode();
    if (!arguments.isArray()) {
        throw KRMalformed("a request is malformed: its arguments are no array");
    }
    {
        const std::lock_guard lock(peersMutex_);
        if (!served_.emplace(request.broker, request.sequence).second) {
            return; // has come already
        }
    }
    host_.serve(
        std::make_shared<KRServedCall>(shared_from_this(), request, arguments.to<std::vector<KRValue>>()));
}

void KRLink::answerInquiry(const KRRequest& request) {
    const KRValue list = request.arguments.decode();
    if (!list.isArray() || list.getSize() % 2 != 0) {
        throw KRMalformed("an inquiry is malformed");
    }
    std::vector<std::uint64_t> unknown;
    {
        const std::lock_guard lock(peersMutex_);
        for (std::size_t i = 0; i < list.getSize(); i += 2) {
            if (!list[i].isInt() || !list[i + 1].isInt()) {
                throw KRMalformed("an inquiry is malformed");
            }
            const std::uint64_t sequence = std::uint64_t{static_cast<std::uint32_t>(list[i].to<int>())}
                                               << 32 |
                                           static_cast<std::uint32_t>(list[i + 1].to<int>());
            if (!served_.contains({request.broker, sequence})) {
                unknown.push_back(sequence);
            }
        }
    }
    if (unknown.empty()) {
        return;
    }
    try {
        host_.post([link = shared_from_this(), broker = request.broker, unknown] {
            const auto peer = link->waitForPeer(broker);
            if (peer && peer->waitForReplyReader()) {
                for (const std::uint64_t sequence : unknown) {
                    peer->reply(sequence, KRReply::Unknown, KRValue());
                }
            }
        });
    } catch (const std::exception& error) { // it will be asked again
        logWarning(kCategory, std::string("an inquiry is not answered: ") + error.what());
    }
}

void KRLink::forgetCall(const std::string& broker, std::uint64_t sequence) {
    const std::lock_guard lock(peersMutex_);
    served_.erase({broker, sequence});
}

void KRLink::countMalformed(const char* why) {
    if (malformed_++ == 0) {
        logWarning(kCategory,
                   std::string(why) + "; it is dropped, as are others like it without another word");
    }
}

std::shared_ptr<KRPeer> KRLink::findPeer(const std::string& id) const {
    const std::lock_guard lock(peersMutex_);
    const auto found = peers_.find(id);
    return found == peers_.end() ? nullptr : found->second;
}

std::shared_ptr<KRPeer> KRLink::waitForPeer(const std::string& id) {
    std::unique_lock lock(peersMutex_);
    peerCame_.wait_for(lock, kAnnouncementPatience, [&] { return peers_.contains(id) || stopping_; });
    const auto found = peers_.find(id);
    return found == peers_.end() ? nullptr : found->second;
}

void KRLink::inquireOfPeers() {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastInquiry_ < kInquiryAge) {
        return;
    }
    lastInquiry_ = now;
    std::vector<std::shared_ptr<KRPeer>> peers;
    {
        const std::lock_guard lock(peersMutex_);
        for (const auto& [id, peer] : peers_) {
            peers.push_back(peer);
        }
    }
    for (const auto& peer : peers) {
        if (!peer->hasCallsOlderThan(kInquiryAge) || !peer->beginInquiry()) {
            continue;
        }
        try {
            host_.post([peer] { // writing may block
                try {
                    peer->inquire(kInquiryAge);
                } catch (const std::exception& error) {
                    logWarning(kCategory, error.what());
                }
                peer->endInquiry();
            });
        } catch (const std::exception&) { // next time
            peer->endInquiry();
        }
    }
}

} // namespace KR
