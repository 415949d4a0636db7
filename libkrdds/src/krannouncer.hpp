#pragma once

#include "krannouncement.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krtransport.hpp>

#include <krlocal/krhostdirectory.hpp>

#include <dds/dds.h>

#include <chrono>
#include <set>
#include <string>

struct ddsi_domaingv;

namespace KR {

/// Name of this machine, as announced.
std::string getHostName();

/// Announces this broker and the names that it requests: to brokers on this host in the host directory, to others over DDS.
/// Thread-safe; only waitForAcks() waits for other brokers.
class KRAnnouncer {
public:
    KRAnnouncer(KRTransportHost& host, KRHostDirectory& onHost, std::string name)
        : host_(host), onHost_(onHost), name_(std::move(name)) {}

    /// Starts announcing. Call it once.
    /// \param engine  the participant's engine
    /// \param id  identity of the broker
    /// \param local  its KRLocalWay::getAddress()
    /// \throws KRError the engine refuses
    void start(ddsi_domaingv* engine, dds_entity_t participant, dds_entity_t topic, const std::string& id,
               const std::string& local) KR_EXCLUDES(mutex_);
    /// Disposes the announcement: the others see that this broker leaves.
    void stop() noexcept KR_EXCLUDES(mutex_);

    /// Announces the current modules. If other brokers are too far behind, poll() does it later.
    /// \throws KRError more modules than a broker can announce; the engine refuses
    void announce() KR_EXCLUDES(mutex_);
    /// Says in the host directory which brokers are called over DDS. \throws KRError as announce()
    void setOverDDS(std::set<std::string> brokers) KR_EXCLUDES(mutex_);
    /// Retries the last announcement if it was postponed.
    void poll() KR_EXCLUDES(mutex_);

    /// Announces the module's name as requested, until endAsking(). The others acknowledge that at once.
    /// \return the time of the claim
    /// \throws KRError as announce()
    KRClaimTime ask(const std::string& module) KR_EXCLUDES(mutex_);
    void endAsking(const std::string& module) KR_EXCLUDES(mutex_);
    /// Waits until all brokers that DDS connects have received the last announcement, but no longer than `patience`.
    void waitForAcks(std::chrono::milliseconds patience);

private:
    void announceNow() KR_REQUIRES(mutex_);

    KRTransportHost& host_;
    KRHostDirectory& onHost_;
    const std::string name_;

    KRMutex mutex_; // held while the announcement is written, which never waits
    ddsi_domaingv* engine_ KR_GUARDED_BY(mutex_) = nullptr;
    dds_entity_t writer_ KR_GUARDED_BY(mutex_) = 0; // 0 before start() and after stop()
    dds_guid_t writerGuid_ KR_GUARDED_BY(mutex_) = {};
    std::string id_ KR_GUARDED_BY(mutex_);
    std::string local_ KR_GUARDED_BY(mutex_);
    std::string hostName_ KR_GUARDED_BY(mutex_);
    std::set<std::string> overDDS_ KR_GUARDED_BY(mutex_);
    bool pending_ KR_GUARDED_BY(mutex_) = false;        // the last announcement has not been written
    KRAnnouncedModules modules_ KR_GUARDED_BY(mutex_);  // as announced last
    std::set<std::string> asked_ KR_GUARDED_BY(mutex_); // names being claimed
};

} // namespace KR
