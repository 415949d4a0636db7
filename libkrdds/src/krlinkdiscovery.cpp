// The functions of KRLink that run on the thread KRDDS.

#include "krlink.hpp"

#include "krengine.h"
#include "krloan.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krthread.hpp>

#include "krvision.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>
#include <vector>

namespace KR {

namespace {

constexpr std::chrono::seconds kInquiryAge{1}; // of inquired calls, and interval of inquiries
constexpr std::chrono::milliseconds kTick{500};
constexpr std::chrono::milliseconds kShortestTick{25};
constexpr int kTicksInLease = 4;
constexpr std::size_t kMany = 32; // other processes of this host: ticks are rarer
// When many processes start at once, discovery packets may be lost; the engine sends the next one much later.
constexpr std::array<int, 4> kShowAgainAfter_ms{500, 1500, 4000, 10000};
// Interval of heartbeats; with more than 5 other processes longer, so that together they send about 50 a second. The first
// call between two processes waits for some.
constexpr std::chrono::nanoseconds kHeartbeat = std::chrono::milliseconds(100);
constexpr std::chrono::nanoseconds kHeartbeatForEach = std::chrono::milliseconds(20);
constexpr int kTicksOfQuiet = 20;                 // everything is reported; this is a fallback
constexpr std::chrono::seconds kPollPatience{10}; // much longer than a poll takes on a busy machine
// Each change wakes all processes of a host. They rest for a multiple of the time that a poll took: many processes for longer, so
// that together they take one core at most.
constexpr int kRest = 8;
constexpr std::chrono::milliseconds kLongestRest{250};

} // namespace

void KRLink::run() noexcept {
    setThreadName("KRDDS");
    const auto shortTick = std::clamp(options_.lease / kTicksInLease, kShortestTick, kTick);
    started_ = lastBeat_ = std::chrono::steady_clock::now();
    for (int ticks = 0; !stopping_; ++ticks) {
        const auto tick = shortTick * (directory_.getCountOnHost() > kMany ? 2 : 1);
        bool news = false;
        bool isWoken = true;
        std::uint64_t poll = 0;
        std::uint64_t announced = 0;
        try {
            isWoken = onHost_.wait(tick);
        } catch (const std::exception& error) {
            failures_.write(KRLogLevel::Error, std::string("host directory: ") + error.what());
        }
        const auto begin = std::chrono::steady_clock::now();
        {
            const KRLock lock(wakeMutex_);
            news = std::exchange(wake_, false);
            poll = ++pollsBegun_;
            announced = announced_;
        }
        try {
            if (!stopping_ && std::chrono::steady_clock::now() - lastBeat_ >= tick) {
                beat();
            }
            if (!stopping_) {
                pollDiscovery(news || ticks % kTicksOfQuiet == 0);
                if (news) {
                    announcementsTaken_ = announced;
                }
            }
        } catch (const std::exception& error) { // out of memory, for example; continues next time
            failures_.write(KRLogLevel::Error, std::string("discovery: ") + error.what());
        }
        {
            const KRLock lock(wakeMutex_);
            pollsDone_ = poll;
            polled_.notifyAll();
        }
        if (isWoken) {
            const auto rest = std::max(kRest, static_cast<int>(directory_.getCountOnHost()));
            onHost_.pause(
                std::chrono::duration_cast<std::chrono::microseconds>(std::min<std::chrono::nanoseconds>(
                    rest * (std::chrono::steady_clock::now() - begin), kLongestRest)));
        }
    }
}

void KRLink::pollDiscovery(bool news) {
    const bool hostNews = takeHostNews();
    if (news || hostNews || directory_.hasConflicts()) {
        takeAnnouncements();
        connectOverDDS();
        openReplies();
        directory_.poll(getAnnouncers());
        pulses_.keep([this](const std::string& broker) { return directory_.find(broker) != nullptr; });
        takeRequests(); // those that waited for announcements
    }
    onHost_.settle();
    hasMet_ = hasMet_ || !onHost_.isMeeting();
    if (isHidden_ && onHost_.hasMetAll()) {
        isHidden_ = false;
        domain_->show();
        filterIgnored();
        showAgain();
    }
    calls_->poll();
    announcer_.poll();
    inquireOfPeers();
    forgeries_.flush();
    failures_.flush();
    flushEngineLog();
}

bool KRLink::takeHostNews() {
    using News = KRHostDirectory::News;
    const std::vector<News> list = onHost_.takeNews();
    for (const News& news : list) {
        try {
            if (!isBrokerId(news.broker.c_str())) {
                countMalformed("an entry of the host directory is malformed: its broker is not an identity");
            } else if (news.kind == News::Kind::Published) {
                acceptOnHost(news.broker, news.process, news.text);
            } else {
                takeDeparture(news);
            }
        } catch (const KRMalformed& error) {
            countMalformed(error.what());
        } catch (const std::exception& error) { // the other news must not be lost
            failures_.write(KRLogLevel::Error, std::string("host directory: ") + error.what());
        }
    }
    return !list.empty();
}

void KRLink::takeDeparture(const KRHostDirectory::News& news) {
    using Kind = KRHostDirectory::News::Kind;
    const bool hasLeft = news.kind == Kind::Left;
    if (!hasLeft || directory_.isOnHost(news.broker)) { // otherwise it says so on DDS
        remove(news.broker, hasLeft ? "has left the domain" : "is gone or cannot be reached");
    }
    const dds_guid_t guid = toGuid(news.broker);
    if (!hasLeft) {
        krForgetParticipant(engine_, &guid);
    }
    if (news.kind != Kind::Frozen) { // a frozen one comes back by way of the host directory
        ignore(news.broker, false);
    }
}

void KRLink::acceptOnHost(const std::string& broker, pid_t process, std::string_view text) {
    if (!publishesOnHost_) {
        return;
    }
    KRHostAnnouncement read = KRHostAnnouncement::parse(text, kProtocol);
    const KRAnnouncement& announcement = read.announcement;
    const auto known = directory_.find(broker);
    const bool isNew = !directory_.isOnHost(broker);
    if (announcement.broker != broker || broker == id_ ||
        announcement.pid != static_cast<std::uint32_t>(process) ||
        (known && known->getProcess() != process)) {
        countForged("of process " + std::to_string(process), announcement.broker);
        return;
    }
    bool isDiscovered = false;
    if (isNew) {
        isDiscovered = ignore(broker, true);
    }
    directory_.accept(connection_, std::move(read.announcement), KRPeerDirectory::kOnHost);
    const auto peer = directory_.find(broker);
    if (isDiscovered && isHidden_) { // in the moment before it was hidden; the other does not know this one
        toForget_.push_back({broker, 0});
        isDiscovered = false;
    }
    if (isDiscovered || domain_->needsDiscovery() || read.overDDS.contains(id_) ||
        (peer && !peer->getRoute())) {
        requireDDS(broker);
    }
}

void KRLink::remove(const std::string& broker, const std::string& why) {
    directory_.remove(broker, why);
    if (connectedOverDDS_.erase(broker) > 0) {
        announcer_.setOverDDS(connectedOverDDS_);
    }
    const KRLock lock(overDDSMutex_);
    overDDS_.erase(broker);
}

void KRLink::connectOverDDS() {
    bool isNew = false;
    {
        const KRLock lock(overDDSMutex_);
        for (const std::string& broker : overDDS_) {
            if (directory_.isOnHost(broker) && connectedOverDDS_.insert(broker).second) {
                ignore(broker, false);
                isNew = true;
            }
        }
    }
    if (isNew) {
        filterIgnored();
        announcer_.setOverDDS(connectedOverDDS_);
        showAgain();
    }
}

bool KRLink::ignore(const std::string& broker, bool ignored) {
    const dds_guid_t guid = toGuid(broker);
    ignoresOthers_ = true;
    return krIgnoreParticipant(engine_, &guid, ignored);
}

void KRLink::filterIgnored() {
    ignoresOthers_ = false;
    domain_->filterIgnored(engine_);
}

void KRLink::takeAnnouncements() {
    constexpr dds_return_t kMost = 16;
    for (;;) {
        KRLoan loan(kMost);
        const dds_return_t count = loan.fill(announcementReader_, dds_take);
        for (dds_return_t i = 0; i < count; ++i) {
            try {
                takeAnnouncement(loan.getSample(i), loan.getInfo(i));
            } catch (const KRMalformed& error) {
                countMalformed(error.what());
            }
        }
        if (count < kMost) {
            return;
        }
    }
}

void KRLink::takeAnnouncement(const void* sample, const dds_sample_info_t& info) {
    const auto& message = *static_cast<const KRVision_Announcement*>(sample);
    const bool disposed = info.instance_state == DDS_NOT_ALIVE_DISPOSED_INSTANCE_STATE;
    if (!info.valid_data && !disposed) {
        return; // its writer is gone; pollDiscovery() handles that
    }
    if (!checkSender(announcementReader_, info.publication_handle, message.broker)) {
        return;
    }
    if (info.valid_data) {
        KRAnnouncement announcement = KRAnnouncement::parse(message, kProtocol);
        if (directory_.isOnHost(announcement.broker)) {
            return; // the host directory has the latest
        }
        if (domain_->staysOnHost() && !onHost_.knows(announcement.broker)) { // otherwise its lease will do
            pulses_.watch(announcement.broker, announcement.host, static_cast<pid_t>(announcement.pid));
        }
        announcement.local = KRSenders::readUserData(announcementReader_, info.publication_handle);
        directory_.accept(connection_, std::move(announcement), info.publication_handle);
    }
    if (disposed && !directory_.isOnHost(message.broker)) {
        directory_.remove(message.broker, "has left the domain");
    }
}

std::set<dds_instance_handle_t> KRLink::getAnnouncers() const {
    std::vector<dds_instance_handle_t> writers(64);
    for (;;) {
        const dds_return_t count =
            checkDDS(dds_get_matched_publications(announcementReader_, writers.data(), writers.size()),
                     "list of brokers");
        if (static_cast<std::size_t>(count) <= writers.size()) {
            return {writers.begin(), writers.begin() + count};
        }
        writers.resize(2 * static_cast<std::size_t>(count));
    }
}

void KRLink::openReplies() {
    for (const auto& peer : directory_.list()) {
        if (!peer->wantsReplies() || peer->readsReplies()) {
            continue;
        }
        try {
            peer->openReplies();
        } catch (const KRError& error) { // permissions, for example
            failures_.write(KRLogLevel::Error, "the broker " + peer->getLocation() +
                                                   " cannot be answered: " + error.getDescription());
        }
    }
}

void KRLink::beat() {
    const auto now = std::chrono::steady_clock::now();
    onHost_.beat(options_.lease);
    const bool wasFrozen = now - lastBeat_ >= options_.lease; // so others may have forgotten this process
    lastBeat_ = now;
    for (const std::string& broker : pulses_.findSilent(options_.lease)) {
        const dds_guid_t guid = toGuid(broker);
        krForgetParticipant(engine_, &guid);
    }
    forgetIgnored();
    if (ignoresOthers_) {
        filterIgnored();
    }
    if (domain_->needsDiscovery()) {
        for (const std::string& broker : directory_.listOnHost()) {
            requireDDS(broker); // another broker of this process has to discover it
        }
    }
    if (!domain_->staysOnHost()) {
        return;
    }
    const bool isDue = repeats_ < kShowAgainAfter_ms.size() &&
                       now - started_ >= std::chrono::milliseconds(kShowAgainAfter_ms[repeats_]);
    if (isDue) {
        ++repeats_;
        countPlaces(findPlaces());
    }
    if (wasFrozen || (isDue && places_ > 0)) {
        showAgain();
    }
    setHeartbeats();
}

// Not at once: the engine must not be working on what the other has sent. Deleting a participant ends its being ignored.
void KRLink::forgetIgnored() {
    constexpr int kForgetAt = 4; // beats
    constexpr int kDone = 10;
    for (Forgotten& each : toForget_) {
        const dds_guid_t guid = toGuid(each.broker);
        if (!directory_.isOnHost(each.broker) || connectedOverDDS_.contains(each.broker)) {
            each.beats = kDone;
            continue;
        }
        if (++each.beats == kForgetAt) {
            krForgetParticipant(engine_, &guid);
        }
        ignore(each.broker, true);
    }
    std::erase_if(toForget_, [](const Forgotten& each) { return each.beats >= kDone; });
}

void KRLink::countPlaces(const std::vector<std::uint16_t>& places) {
    auto known = directory_.getPortsOnHost();
    known.insert(krGetPort(engine_));
    places_ = static_cast<std::size_t>(std::count_if(
        places.begin(), places.end(), [&](std::uint16_t port) { return !known.contains(port); }));
}

// A heartbeat of a writer that waits for acknowledgements wakes all processes. When many start at once, all wait, and would
// leave each other no processor time to acknowledge.
void KRLink::setHeartbeats() {
    if (domain_->staysOnHost()) {
        const auto others = static_cast<std::int64_t>(std::max(directory_.getCountOverDDS(), places_));
        krSetHeartbeatInterval(
            engine_, std::max<std::int64_t>(kHeartbeat.count(), others * kHeartbeatForEach.count()));
    }
}

void KRLink::showAgain() {
    // Changes something, as the engine only sends changes.
    ++shownAgain_;
    const std::string mark = std::string(kMark) + (shownAgain_ % 2 == 0 ? "" : " ");
    const std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)> qos(dds_create_qos(), dds_delete_qos);
    dds_qset_userdata(qos.get(), mark.data(), mark.size());
    dds_set_qos(participant_.get(), qos.get());
}

void KRLink::inquireOfPeers() {
    const auto now = std::chrono::steady_clock::now();
    if (*callsOverDDS_ == 0 || now - lastInquiry_ < kInquiryAge) {
        return;
    }
    lastInquiry_ = now;
    for (const auto& peer : directory_.list()) {
        if (!peer->hasCallsOlderThan(kInquiryAge) || !peer->beginInquiry()) {
            continue;
        }
        if (!post([peer] { peer->inquire(kInquiryAge); })) { // may block
            peer->endInquiry();                              // next time
        }
    }
}

void KRLink::wake() {
    const KRLock lock(wakeMutex_);
    wake_ = true;
    onHost_.interrupt();
}

void KRLink::waitForPoll() {
    KRLock lock(wakeMutex_);
    const std::uint64_t wanted = pollsBegun_ + 1;
    wake_ = true;
    onHost_.interrupt();
    polled_.waitFor(lock, kPollPatience, [&] {
        wakeMutex_.assertHeld();
        return pollsDone_ >= wanted || stopping_;
    });
}

} // namespace KR
