#include "krannouncer.hpp"

#include "krddsdomain.hpp"
#include "krengine.h"
#include "krlink.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krthread.hpp>

#include "krvision.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <utility>

namespace KR {

namespace {

KRClaimTime getWallClock() {
    const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return {static_cast<std::int32_t>(now / 1000000), static_cast<std::int32_t>(now % 1000000)};
}

} // namespace

std::string getHostName() {
    utsname names{};
    return uname(&names) == 0 ? names.nodename : "";
}

void KRAnnouncer::start(ddsi_domaingv* engine, dds_entity_t participant, dds_entity_t topic,
                        const std::string& id, const std::string& local) {
    const std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)> qos(dds_create_qos(), dds_delete_qos);
    // A write does not wait for slow brokers: poll() retries.
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, 0);
    dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
    dds_qset_userdata(qos.get(), local.data(), local.size()); // ignored by older brokers
    dds_qset_writer_data_lifecycle(qos.get(), false); // to distinguish a lost broker from one that leaves
    const KRLock lock(mutex_);
    writer_ = checkDDS(dds_create_writer(participant, topic, qos.get(), nullptr), "writer of announcements");
    checkDDS(dds_get_guid(writer_, &writerGuid_), "identity of a writer");
    engine_ = engine;
    id_ = id;
    local_ = local;
    hostName_ = getHostName();
}

void KRAnnouncer::stop() noexcept {
    constexpr int kAttempts = 20;
    const KRLock lock(mutex_);
    if (writer_ == 0) {
        return;
    }
    onHost_.leave();
    KRVision_Announcement self{};
    self.broker = id_.data();
    for (int i = 0; i < kAttempts && dds_dispose(writer_, &self) == DDS_RETCODE_TIMEOUT; ++i) {
        sleepMilliseconds(5);
    }
    writer_ = 0;
}

void KRAnnouncer::announce() {
    const KRLock lock(mutex_);
    announceNow();
}

void KRAnnouncer::setOverDDS(std::set<std::string> brokers) {
    const KRLock lock(mutex_);
    if (brokers != overDDS_) {
        overDDS_ = std::move(brokers);
        announceNow();
    }
}

void KRAnnouncer::poll() {
    const KRLock lock(mutex_);
    if (pending_) {
        announceNow();
    }
}

KRClaimTime KRAnnouncer::ask(const std::string& module) {
    const KRLock lock(mutex_);
    asked_.insert(module);
    if (writer_ != 0) {
        krHastenAcknowledgement(engine_, &writerGuid_);
    }
    try {
        announceNow();
    } catch (...) {
        asked_.erase(module);
        throw;
    }
    return modules_[module].claimed;
}

void KRAnnouncer::endAsking(const std::string& module) {
    const KRLock lock(mutex_);
    asked_.erase(module);
}

void KRAnnouncer::waitForAcks(std::chrono::milliseconds patience) {
    dds_entity_t writer = 0;
    {
        const KRLock lock(mutex_);
        writer = writer_;
    }
    if (writer != 0) {
        dds_wait_for_acks(writer, DDS_MSECS(patience.count()));
    }
}

void KRAnnouncer::announceNow() {
    if (writer_ == 0) {
        return;
    }
    KRAnnouncedModules modules;
    for (const KRLocalModule& module :
         host_.listModules()) { // with the lock held, so that the last is newest
        const auto known = modules_.find(module.name);
        const auto number = static_cast<std::int32_t>(module.number);
        const bool same = known != modules_.end() && known->second.number == number;
        modules[module.name] = {number, module.state, same ? known->second.claimed : getWallClock(),
                                asked_.contains(module.name)};
    }
    std::string encoded = encodeModules(modules);
    std::string name = name_;
    KRVision_Announcement announcement{};
    announcement.broker = id_.data();
    announcement.protocol = KRLink::kProtocol;
    announcement.name = name.data();
    announcement.host = hostName_.data();
    announcement.pid = static_cast<std::uint32_t>(getpid());
    announcement.modules._buffer = reinterpret_cast<std::uint8_t*>(encoded.data());
    announcement.modules._length = static_cast<std::uint32_t>(encoded.size());
    announcement.modules._maximum = announcement.modules._length;
    onHost_.publish(KRHostAnnouncement::compose(announcement, local_,
                                                engine_ == nullptr ? 0 : krGetPort(engine_), overDDS_));
    const dds_return_t written = dds_write(writer_, &announcement);
    pending_ = written == DDS_RETCODE_TIMEOUT;
    if (!pending_) {
        checkDDS(written, "announcement");
    }
    modules_ = std::move(modules);
}

} // namespace KR
