#include "krlink.hpp"

#include "krengine.h"
#include "krloan.hpp"
#include "krmessage.hpp"
#include "krserdata.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include "krvision.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace KR {

namespace {

constexpr const char* kCategory = "krdds";
constexpr int kStartPoll_ms = 1;
constexpr int kLongestStartPoll_ms = 16;
constexpr std::chrono::milliseconds kStartPatience{1000};
constexpr std::chrono::seconds kMeetPatience{15}; // longer than the host directory's
constexpr std::chrono::milliseconds kSilencePatience{
    300}; // with processes of this host that may not be brokers
constexpr std::chrono::milliseconds kNetworkPatience{30}; // with the first answer of another host
constexpr std::chrono::milliseconds kClaimPatience{300};
constexpr std::chrono::milliseconds kFewestAckPatience{10000};
constexpr std::chrono::milliseconds kLastAnswersPatience{1000};
constexpr int kMaxInquiriesAnswered = 16;

using Qos = std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)>;

Qos createQos() {
    return {dds_create_qos(), dds_delete_qos};
}

/// Calls a function at the end of its scope.
template <class Function>
class AtEnd {
public:
    explicit AtEnd(Function function) : function_(std::move(function)) {}
    ~AtEnd() { function_(); }
    AtEnd(const AtEnd&) = delete;
    AtEnd& operator=(const AtEnd&) = delete;

private:
    const Function function_;
};

bool isBroker(const dds_builtintopic_participant_t& participant) {
    void* mark = nullptr;
    std::size_t size = 0;
    if (!dds_qget_userdata(participant.qos, &mark, &size)) {
        return false;
    }
    const std::unique_ptr<void, void (*)(void*)> owned(mark, dds_free);
    return std::string_view(static_cast<const char*>(mark), size).starts_with(KRLink::kMark);
}

/// A property that the engine gives a participant; empty without it.
std::string getProperty(const dds_builtintopic_participant_t& participant, const char* name) {
    char* value = nullptr;
    if (!dds_qget_prop(participant.qos, name, &value) || value == nullptr) {
        return {};
    }
    const std::unique_ptr<char, void (*)(void*)> owned(value, dds_free);
    return value;
}

/// Participants that have been discovered.
struct Discovered {
    std::vector<std::string> brokers; // identities
    std::set<std::string> ports;      // ":7410@" for instance, where those of this host listen
};

/// \param reader  of the engine's list of participants
Discovered readParticipants(dds_entity_t reader) {
    constexpr std::uint32_t kMost = 1000;
    std::array<char, 256> host{};
    gethostname(host.data(), host.size() - 1);
    Discovered discovered;
    KRLoan loan(kMost);
    const dds_return_t count = loan.fill(reader, dds_read);
    for (dds_return_t i = 0; i < count; ++i) {
        const auto& participant = *static_cast<const dds_builtintopic_participant_t*>(loan.getSample(i));
        if (loan.getInfo(i).instance_state != DDS_ALIVE_INSTANCE_STATE) {
            continue;
        }
        if (isBroker(participant)) {
            discovered.brokers.push_back(toText(participant.key));
        }
        if (getProperty(participant, "__Hostname") != host.data()) {
            continue;
        }
        // "udp/239.255.0.1:7400@1,udp/127.0.0.1:7410@1"
        const std::string addresses = getProperty(participant, "__NetworkAddresses");
        for (auto at = addresses.find('@'); at != std::string::npos; at = addresses.find('@', at + 1)) {
            const auto colon = addresses.rfind(':', at);
            if (colon != std::string::npos) {
                discovered.ports.insert(addresses.substr(colon, at - colon + 1));
            }
        }
    }
    return discovered;
}

std::vector<std::uint64_t> decodeInquiry(const KRRequest& request) {
    const KRValue list = request.arguments.decode();
    if (!list.isArray() || list.getSize() % 2 != 0 || list.getSize() > 2 * KRRequest::kMaxInquired) {
        throw KRMalformed("an inquiry is malformed");
    }
    std::vector<std::uint64_t> sequences;
    for (std::size_t i = 0; i < list.getSize(); i += 2) {
        if (!list[i].isInt() || !list[i + 1].isInt()) {
            throw KRMalformed("an inquiry is malformed");
        }
        sequences.push_back(std::uint64_t{static_cast<std::uint32_t>(list[i].to<int>())} << 32 |
                            static_cast<std::uint32_t>(list[i + 1].to<int>()));
    }
    return sequences;
}

} // namespace

KRLink::KRLink(KRDDSOptions options, KRTransportHost& host)
    : options_(std::move(options)), host_(host), meetsOnHost_(options_.local && options_.security.empty()),
      domain_(KRDDSDomain::join(options_, meetsOnHost_)), announcer_(host, onHost_, options_.name),
      calls_(std::make_shared<KRIncomingCalls>(host, [this] { wake(); })),
      way_(host, {[this](std::function<void()> job) { return post(std::move(job)); },
                  [this](const std::string& broker) { noticeGone(broker); },
                  [this](const std::string& broker) { noticeCallerGone(broker); },
                  [this](const std::string& broker, pid_t process) { return admit(broker, process); },
                  [this] { wake(); }, [this](const char* why) { countMalformed(why); }}),
      directory_(host, *calls_, way_, options_.lease) {}

KRLink::~KRLink() {
    KRLink::stop();
    if (isHidden_) {
        domain_->show(); // others may use it
    }
}

// ---- entities of the engine

template <void (KRLink::*take)()>
void KRLink::onData(dds_entity_t, void* given) {
    KRLink& link = *static_cast<KRLink*>(given);
    ++link.listening_;
    const AtEnd leave([&] { --link.listening_; });
    try {
        if (link.serving_) { // messages received before start() wait for it
            (link.*take)();
        }
    } catch (const std::exception& error) { // short of memory, for instance
        link.failures_.write(KRLogLevel::Error, std::string("messages are lost: ") + error.what());
    }
}

void KRLink::onAnnouncement(dds_entity_t, void* given) {
    KRLink& link = *static_cast<KRLink*>(given);
    ++link.announced_;
    link.wake();
}

bool KRLink::admitAnnouncement(const void* sample, const dds_sample_info_t* info, void* given) noexcept {
    KRLink& link = *static_cast<KRLink*>(given);
    try {
        const char* broker = static_cast<const KRVision_Announcement*>(sample)->broker;
        if (!isBrokerId(broker)) {
            link.countMalformed("an announcement is malformed: its broker is not an identity");
            return false;
        }
        if (!link.senders_.isFirstName(info->publication_handle, broker)) {
            link.countForged("that names several brokers", broker);
            return false;
        }
        return true;
    } catch (const std::exception&) { // short of memory
        return false;
    }
}

void KRLink::onAnnouncerMatched(dds_entity_t, dds_subscription_matched_status_t, void* link) {
    static_cast<KRLink*>(link)->wake();
}

dds_entity_t KRLink::createReader(dds_entity_t topic, const dds_qos_t* qos,
                                  dds_on_data_available_fn onDataFunction) {
    const std::unique_ptr<dds_listener_t, void (*)(dds_listener_t*)> listener(dds_create_listener(this),
                                                                              dds_delete_listener);
    dds_lset_data_available(listener.get(), onDataFunction);
    dds_lset_subscription_matched(listener.get(), onAnnouncerMatched);
    return checkDDS(dds_create_reader(participant_.get(), topic, qos, listener.get()), "reader");
}

void KRLink::createEntities() {
    const Qos marked = createQos();
    dds_qset_userdata(marked.get(), kMark.data(), kMark.size());
    participant_ = KRDDSEntity(checkDDS(dds_create_participant(options_.domain, marked.get(), nullptr),
                                        options_.security.empty()
                                            ? "participant"
                                            : "participant with the credentials in " + options_.security));
    const dds_entity_t participant = participant_.get();
    dds_guid_t guid{};
    checkDDS(dds_get_guid(participant, &guid), "identity");
    id_ = toText(guid);

    const auto createAnnouncementTopic = [&] {
        return checkDDS(
            dds_create_topic(participant, &KRVision_Announcement_desc, "KRVision/Broker", nullptr, nullptr),
            "topic");
    };
    const std::string prefix = "KRVision/" + std::to_string(kProtocol);
    connection_ = {
        participant,
        createMessageTopic(participant, (prefix + "/Request").c_str(), "KRVision::Request", &engine_),
        createMessageTopic(participant, (prefix + "/Reply").c_str(), "KRVision::Reply"),
        id_,
        std::max(options_.lease, kFewestAckPatience),
        [this] { wake(); },
        [this](const std::string& broker) { requireDDS(broker); },
        callsOverDDS_};
    domain_->noticeEngine(engine_);
    if (!options_.security.empty()) {
        checkPermissions();
    }

    const Qos messages = createQos();
    dds_qset_reliability(messages.get(), DDS_RELIABILITY_RELIABLE, 0);
    dds_qset_history(messages.get(), DDS_HISTORY_KEEP_ALL, 0);
    dds_qset_partition1(messages.get(), id_.c_str());
    requestReader_ = createReader(connection_.requestTopic, messages.get(), onData<&KRLink::noticeRequests>);
    replyReader_ = createReader(connection_.replyTopic, messages.get(), onData<&KRLink::takeReplies>);
    const Qos announcements = createQos();
    dds_qset_reliability(announcements.get(), DDS_RELIABILITY_RELIABLE, 0);
    dds_qset_durability(announcements.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_ignorelocal(announcements.get(), DDS_IGNORELOCAL_PARTICIPANT);
    // All, so that a forged announcement cannot replace a broker's own.
    dds_qset_history(announcements.get(), DDS_HISTORY_KEEP_ALL, 0);
    const dds_entity_t admitted = createAnnouncementTopic();
    dds_topic_filter filter{};
    filter.mode = DDS_TOPIC_FILTER_SAMPLE_SAMPLEINFO_ARG;
    filter.f.sample_sampleinfo_arg = admitAnnouncement;
    filter.arg = this;
    checkDDS(dds_set_topic_filter_extended(admitted, &filter), "filter");
    announcementReader_ = createReader(admitted, announcements.get(), onAnnouncement);
    way_.start(options_, id_);
    announcer_.start(engine_, participant, createAnnouncementTopic(), id_, way_.getAddress());
    publishesOnHost_ = meetsOnHost_ && !way_.getAddress().empty();
    if (publishesOnHost_ || domain_->staysOnHost()) {
        joinHostDirectory();
    }
}

void KRLink::joinHostDirectory() {
    try {
        onHost_.join({"dds" + std::to_string(options_.domain), id_, publishesOnHost_});
    } catch (const KRError& error) {
        publishesOnHost_ = false;
        logWarning(kCategory,
                   "brokers of this host are discovered through the network: " + error.getDescription());
    }
}

// Writers to other brokers are created at the first call. This checks that it is permitted, so that the error reaches
// the creator of the broker.
void KRLink::checkPermissions() {
    try {
        KRPeer self(connection_, id_, "in this process", 0, {});
        self.openRequests();
        self.openReplies();
        self.close();
    } catch (const KRError& error) {
        throw KRError("KRBroker", "create",
                      "a broker must be allowed to publish requests and replies: " + error.getDescription());
    }
}

// ---- life

void KRLink::start() {
    createEntities();
    serving_ = true;
    takeRequests();
    takeReplies();
    const auto places = findPlaces();
    countPlaces(places);
    setHeartbeats();
    announcer_.announce();
    thread_ = std::thread([this] { run(); });
    {
        KRLock lock(wakeMutex_);
        polled_.waitFor(lock, kMeetPatience, [this] { return hasMet_.load(); });
    }
    waitForBrokersThatAreThere(places);
    logInfo(kCategory,
            "broker " + escapeText(options_.name) + " is on DDS domain " + std::to_string(options_.domain));
}

// A broker's participant is discovered before its modules. The ports in use show the number of processes of this host.
void KRLink::waitForBrokersThatAreThere(const std::vector<std::uint16_t>& places) const {
    using Clock = std::chrono::steady_clock;
    const KRDDSEntity reader(
        checkDDS(dds_create_reader(participant_.get(), DDS_BUILTIN_TOPIC_DCPSPARTICIPANT, nullptr, nullptr),
                 "reader"));
    const auto begin = Clock::now();
    const auto isComplete = [&] {
        const auto waited = Clock::now() - begin;
        const Discovered discovered = readParticipants(reader.get());
        const auto onHost = directory_.getPortsOnHost();
        const auto heard = std::count_if(places.begin(), places.end(), [&](std::uint16_t port) {
            return onHost.contains(port) || discovered.ports.contains(":" + std::to_string(port) + "@");
        });
        const bool allHeard = heard + 1 >= std::ssize(places); // one is our own
        const bool allKnown =
            std::all_of(discovered.brokers.begin(), discovered.brokers.end(),
                        [&](const std::string& id) { return id == id_ || directory_.isSettled(id); });
        const auto peers = directory_.list();
        const bool isConnecting =
            std::any_of(peers.begin(), peers.end(), [](const auto& peer) { return peer->isConnecting(); });
        return allKnown && !isConnecting && (allHeard || waited >= kSilencePatience) &&
               (domain_->staysOnHost() || waited >= kNetworkPatience);
    };
    for (int pause = kStartPoll_ms; !isComplete() && Clock::now() - begin < kStartPatience;
         pause = std::min(2 * pause, kLongestStartPoll_ms)) {
        sleepMilliseconds(pause);
    }
}

std::vector<std::uint16_t> KRLink::findPlaces() const {
    KRHostNetwork network;
    network.takenPorts = KRHostNetwork::findTakenPorts();
    return network.findPlaces(options_.domain);
}

void KRLink::stop() noexcept {
    if (stopping_.exchange(true) || participant_.get() == 0) {
        return;
    }
    announcer_.stop(); // first, to stop new calls
    dds_delete(requestReader_);
    if (thread_.joinable()) {
        wake();
        thread_.join();
    }
    calls_->stop(kLastAnswersPatience);
    way_.finish(kLastAnswersPatience);
    const auto peers = directory_.list();
    for (const auto& peer : peers) {
        peer->setGone("this process is leaving the domain");
    }
    for (const auto& peer : peers) { // in parallel, as each may take a while
        if (!post([peer] { peer->close(); })) {
            peer->close();
        }
    }
    way_.stop();
    dds_delete(replyReader_);
    dds_delete(announcementReader_);
    while (listening_ > 0) { // short: they never block
        sleepMilliseconds(1);
    }
    const KRLock lock(wakeMutex_);
    polled_.notifyAll();
}

void KRLink::announceModules() noexcept {
    try {
        announcer_.announce();
    } catch (const std::exception& error) {
        logError(kCategory, std::string("the modules of this process cannot be announced: ") + error.what());
    }
}

KRBrokerDiagnostics KRLink::getDiagnostics() const {
    KRBrokerDiagnostics diagnostics;
    diagnostics.transport = "dds";
    diagnostics.domain = options_.domain;
    diagnostics.secure = !options_.security.empty();
    diagnostics.interfaces = options_.interfaces;
    diagnostics.protocol = kProtocol;
    diagnostics.malformedMessages = malformed_;
    diagnostics.refusedMessages = forged_ + calls_->getRefusedCount();
    directory_.describe(diagnostics);
    return diagnostics;
}

// ---- claims of names

// If several brokers claim one name at once, exactly one must get it. Each first announces that it requests the name. A
// broker gives up if another one owns the name or requested it earlier. If another one requested it later, it waits until
// that is settled, as the other may have polled before this claim arrived.
void KRLink::claim(const std::string& name) {
    if (const std::string problem = findNameProblem(name); !problem.empty()) {
        throw KRError("KRBroker", "registerModule", "other processes would refuse " + problem);
    }
    const KRClaimTime claimed = announcer_.ask(name);
    try {
        // Anything that another broker announced before it acknowledged the claim has arrived by now.
        announcer_.waitForAcks(kClaimPatience);
        settleClaim(name, claimed);
    } catch (...) {
        announcer_.endAsking(name);
        throw;
    }
    announcer_.endAsking(name);
    announceModules();
}

void KRLink::settleClaim(const std::string& name, const KRClaimTime& claimed) {
    const auto deadline = std::chrono::steady_clock::now() + kClaimPatience;
    for (;;) {
        waitForPoll();
        const auto others = directory_.findOtherClaims(name, claimed, id_);
        if (!others.location.empty()) {
            throw KRError("KRBroker", "registerModule",
                          "there is a module named " + name + " already, " + others.location);
        }
        if (!others.later || std::chrono::steady_clock::now() > deadline) {
            return;
        }
        sleepMilliseconds(2);
    }
}

// ---- what has been received

bool KRLink::checkSender(dds_entity_t reader, dds_instance_handle_t writer, const std::string& named) {
    const std::string sender = senders_.find(reader, writer);
    if (sender == named) {
        return true;
    }
    if (!sender.empty()) { // otherwise it is gone, and its request is moot
        countForged(sender, named);
    }
    return false;
}

void KRLink::countForged(const std::string& sender, const std::string& named) {
    ++forged_;
    forgeries_.write(KRLogLevel::Warning, "a message of the participant " + sender +
                                              " is dropped: it names the broker " + escapeText(named, 64) +
                                              " as its sender");
}

KRLocalWay::Admission KRLink::admit(const std::string& broker, pid_t process) {
    // A call through a socket may overtake earlier announcements, for example of its caller's modules.
    if (announcementsTaken_ != announced_ || onHost_.hasNews(broker)) {
        waitForPoll();
    }
    if (auto peer = directory_.find(broker)) {
        if (peer->getProcess() == process) {
            return {true, [peer = std::move(peer)] { return peer->isGone(); }};
        }
    } else if (isBrokerId(broker.c_str()) && broker != id_) {
        return {true, {}}; // nothing is held for it yet that another could misuse
    }
    ++forged_;
    forgeries_.write(KRLogLevel::Warning, "a call of process " + std::to_string(process) +
                                              " is dropped: it names the broker " + escapeText(broker, 64) +
                                              " as its sender");
    return {};
}

void KRLink::noticeGone(const std::string& broker) {
    if (directory_.noticeGone(broker)) {
        const dds_guid_t guid = toGuid(broker);
        krForgetParticipant(engine_, &guid); // otherwise the engine waits for its acknowledgements
        wake();
    }
}

// Its process has ended, or it is reconnecting: whether anything listens at its address tells which.
void KRLink::noticeCallerGone(const std::string& broker) {
    const auto peer = directory_.find(broker);
    if (!peer) {
        if (!directory_.takeDeparted(broker)) {
            host_.noticeCallerGone(broker);
        }
    } else if (peer->getRoute()) {
        peer->getRoute()->connectLater();
    }
}

void KRLink::requireDDS(const std::string& broker) {
    if (!directory_.isOnHost(broker)) {
        return; // connected already
    }
    bool isNew = false;
    {
        const KRLock lock(overDDSMutex_);
        isNew = overDDS_.insert(broker).second;
    }
    if (isNew) {
        wake();
    }
}

void KRLink::takeReplies() {
    takeMessages(replyReader_, [this](const KRTakenMessage& message) {
        try {
            KRReply reply = KRReply::parse(message.bytes);
            if (!checkSender(replyReader_, message.writer, reply.broker)) {
                return;
            }
            if (const auto peer = directory_.find(reply.broker)) {
                peer->takeReply(std::move(reply));
            }
        } catch (const KRMalformed& error) {
            countMalformed(error.what());
        }
    });
}

// Handles earlier announcements before a request, which may refer to the modules in them.
void KRLink::noticeRequests() {
    if (announcementsTaken_ == announced_) {
        takeRequests();
    } else {
        wake();
    }
}

void KRLink::takeRequests() {
    const KRLock lock(requestsMutex_); // in order of arrival
    takeMessages(requestReader_, [this](const KRTakenMessage& message) {
        try {
            KRRequest request = KRRequest::parse(message.bytes);
            if (checkSender(requestReader_, message.writer, request.broker)) {
                takeRequest(std::move(request));
            }
        } catch (const KRMalformed& error) {
            countMalformed(error.what());
        }
    });
}

void KRLink::takeRequest(KRRequest request) {
    if (stopping_) {
        return;
    }
    if (request.kind == KRRequest::Inquiry) {
        answerInquiry(request);
    } else {
        calls_->take(request);
    }
}

void KRLink::answerInquiry(const KRRequest& request) {
    const auto peer = directory_.find(request.broker);
    const auto unknown = calls_->findUnknown(request.broker, decodeInquiry(request));
    if (unknown.empty() || !peer) {
        return; // it asks again
    }
    if (!peer->readsReplies()) {
        if (peer->wantReplies()) {
            wake();
        }
        return; // it asks again
    }
    if (++inquiriesAnswered_ > kMaxInquiriesAnswered || !post([this, peer, unknown] {
            const AtEnd end([this] { --inquiriesAnswered_; });
            for (const std::uint64_t sequence : unknown) {
                if (stopping_ || !peer->reply(sequence, KRReply::Unknown, KRValue())) {
                    break;
                }
            }
        })) {
        --inquiriesAnswered_;
    }
}

void KRLink::countMalformed(const char* why) {
    if (malformed_++ == 0) {
        logWarning(kCategory, std::string(why) + "; it is dropped (further ones are not logged)");
    }
}

bool KRLink::post(std::function<void()> job) {
    try {
        host_.post([job = std::move(job)] {
            try {
                job();
            } catch (const std::exception& error) {
                logWarning(kCategory, error.what());
            }
        });
        return true;
    } catch (const std::exception&) { // no thread
        return false;
    }
}

} // namespace KR
