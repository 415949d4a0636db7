// What a link does on the thread KRDDS.

#include "krlink.hpp"

#include "krloan.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krthread.hpp>

#include "krvision.h"

#include <vector>

namespace KR {

namespace {

constexpr std::chrono::seconds kInquiryAge{1}; // of a call that is asked about, and how often
constexpr std::chrono::milliseconds kPollInterval{200};
constexpr std::chrono::seconds kPollPatience{10}; // much longer than a poll takes on a busy machine

} // namespace

void KRLink::run() noexcept {
    setThreadName("KRDDS");
    while (!stopping_) {
        std::uint64_t poll = 0;
        {
            KRLock lock(wakeMutex_);
            woken_.waitFor(lock, kPollInterval, [this] {
                wakeMutex_.assertHeld();
                return wake_;
            });
            wake_ = false;
            poll = ++pollsBegun_;
        }
        try {
            if (!stopping_) {
                pollDiscovery();
            }
        } catch (const std::exception& error) { // short of memory, for instance; it goes on next time
            failures_.write(KRLogLevel::Error, std::string("discovery: ") + error.what());
        }
        const KRLock lock(wakeMutex_);
        pollsDone_ = poll;
        polled_.notifyAll();
    }
}

void KRLink::pollDiscovery() {
    takeAnnouncements();
    directory_.poll(getAnnouncers());
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
        return; // nobody writes it any more, which pollDiscovery() sees
    }
    if (!checkSender(announcementReader_, info.publication_handle, message.broker)) {
        return;
    }
    if (info.valid_data) {
        directory_.accept(connection_, KRAnnouncement::parse(message, kProtocol), info.publication_handle);
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
        if (!post([peer] { peer->inquire(kInquiryAge); })) { // which may block
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
