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
constexpr int kBeatsInLease = 4;
// When many processes start at once, discovery packets may be lost; the engine sends the next one much later.
constexpr std::array<int, 4> kShowAgainAfter_ms{500, 1500, 4000, 10000};
// Interval of heartbeats; with more than 25 other processes longer, so that together they send about 50 a second.
constexpr std::chrono::nanoseconds kHeartbeat = std::chrono::milliseconds(500);
constexpr std::chrono::nanoseconds kHeartbeatForEach = std::chrono::milliseconds(20);
constexpr int kTicksOfQuiet = 20;                 // everything is reported; this is a fallback
constexpr std::chrono::seconds kPollPatience{10}; // much longer than a poll takes on a busy machine

} // namespace

void KRLink::run() noexcept {
    setThreadName("KRDDS");
    const auto tick = std::clamp(options_.lease / kBeatsInLease, kShortestTick, kTick);
    started_ = lastBeat_ = std::chrono::steady_clock::now();
    for (int ticks = 0; !stopping_; ++ticks) {
        bool news = false;
        std::uint64_t poll = 0;
        std::uint64_t announced = 0;
        {
            KRLock lock(wakeMutex_);
            news = woken_.waitFor(lock, tick, [this] {
                wakeMutex_.assertHeld();
                return wake_;
            });
            wake_ = false;
            poll = ++pollsBegun_;
            announced = announced_;
        }
        try {
            if (!stopping_ && pulse_ && std::chrono::steady_clock::now() - lastBeat_ >= tick) {
                watchPulses();
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
        const KRLock lock(wakeMutex_);
        pollsDone_ = poll;
        polled_.notifyAll();
    }
}

void KRLink::pollDiscovery(bool news) {
    if (news || directory_.hasConflicts()) {
        takeAnnouncements();
        openReplies();
        directory_.poll(getAnnouncers());
        pulses_.keep([this](const std::string& id) { return directory_.knows(id); });
        takeRequests(); // those that waited for announcements
    }
    calls_->poll();
    announcer_.poll();
    inquireOfPeers();
    forgeries_.flush();
    failures_.flush();
    flushEngineLog();
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
        if (pulse_) {
            pulses_.watch(announcement.broker, announcement.host, static_cast<pid_t>(announcement.pid));
        }
        announcement.local = KRSenders::readUserData(announcementReader_, info.publication_handle);
        directory_.accept(connection_, std::move(announcement), info.publication_handle);
    }
    if (disposed) {
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

void KRLink::watchPulses() {
    const auto now = std::chrono::steady_clock::now();
    pulse_->beat();
    const bool wasFrozen = now - lastBeat_ >= options_.lease; // so others may have forgotten this process
    lastBeat_ = now;
    const auto shown = static_cast<std::size_t>(shownAgain_);
    if (wasFrozen || (shown < kShowAgainAfter_ms.size() &&
                      now - started_ >= std::chrono::milliseconds(kShowAgainAfter_ms[shown]))) {
        showAgain();
    }
    setHeartbeats();
    for (const std::string& id : pulses_.findSilent(kBeatsInLease, options_.lease)) {
        const dds_guid_t guid = toGuid(id);
        krForgetParticipant(engine_, &guid);
    }
}

void KRLink::countPlaces() {
    KRHostNetwork network;
    network.takenPorts = KRHostNetwork::findTakenPorts();
    places_ = network.findPlaces(options_.domain).size();
}

// A heartbeat of a writer that waits for acknowledgements wakes all processes. When many start at once, all wait, and would
// leave each other no processor time to acknowledge.
void KRLink::setHeartbeats() {
    if (domain_->staysOnHost()) {
        const auto others = static_cast<std::int64_t>(std::max(directory_.getCount(), places_));
        krSetHeartbeatInterval(
            engine_, std::max<std::int64_t>(kHeartbeat.count(), others * kHeartbeatForEach.count()));
    }
}

void KRLink::showAgain() {
    countPlaces();
    // Changes something, as the engine only sends changes.
    ++shownAgain_;
    const std::string mark = std::string(kMark) + (shownAgain_ % 2 == 0 ? "" : " ");
    const std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)> qos(dds_create_qos(), dds_delete_qos);
    dds_qset_userdata(qos.get(), mark.data(), mark.size());
    dds_set_qos(participant_.get(), qos.get());
}

void KRLink::inquireOfPeers() {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastInquiry_ < kInquiryAge) {
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
    woken_.notifyOne();
}

void KRLink::waitForPoll() {
    KRLock lock(wakeMutex_);
    const std::uint64_t wanted = pollsBegun_ + 1;
    wake_ = true;
    woken_.notifyOne();
    polled_.waitFor(lock, kPollPatience, [&] {
        wakeMutex_.assertHeld();
        return pollsDone_ >= wanted || stopping_;
    });
}

} // namespace KR
