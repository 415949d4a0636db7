#include "krddsdomain.hpp"

#include "krdds/krdds.hpp"
#include "krengine.h"
#include "krhostnetwork.hpp"
#include "krlimitedlog.hpp"
#include "krsecurityfiles.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krtext.hpp>

#include <dds/ddsrt/log.h>

#include <map>

namespace KR {

namespace {

constexpr const char* kEngineCategory = "krdds.engine";

// The last error that the engine logged on this thread: its codes alone are not informative.
thread_local std::string lastError;

/// Limited separately: other processes can cause warnings.
KRLimitedLog& getErrors() {
    static KRLimitedLog limited(kEngineCategory, "errors of the DDS engine");
    return limited;
}
KRLimitedLog& getWarnings() {
    static KRLimitedLog limited(kEngineCategory, "warnings of the DDS engine");
    return limited;
}

/// Log callback of the engine, called from C with any of its locks held.
void writeLog(void*, const dds_log_data_t* record) noexcept {
    constexpr std::size_t kMaxLine = 1000; // it may quote received data
    try {
        std::string message = escapeText({record->message, record->size}, kMaxLine);
        while (message.ends_with("\\n")) {
            message.resize(message.size() - 2);
        }
        if ((record->priority & (DDS_LC_ERROR | DDS_LC_FATAL)) != 0) {
            lastError = message;
            getErrors().write(KRLogLevel::Error, message);
        } else if ((record->priority & DDS_LC_WARNING) != 0 &&
                   message.find("not multicast-capable") ==
                       std::string::npos) { // as the loopback interface is
            getWarnings().write(KRLogLevel::Warning, message);
        } else {
            logVerbose(kEngineCategory, message);
        }
    } catch (const std::exception&) { // out of memory: the line is lost
    }
}

struct Joined {
    KRDDSOptions options;
    bool staysOnHost;
    dds_entity_t domain;
    int brokers = 0;
    bool hidden = false;             // it neither sends nor receives
    ddsi_domaingv* engine = nullptr; // if the kernel drops what it would receive
    int discovering = 0;             // of these, those that do not meet others in the host directory
};

/// Creates the engine's instance of a domain. \throws KRError the engine refuses
dds_entity_t createDomain(const KRDDSOptions& options, const KRHostNetwork& network) {
    const auto create = [&](bool place) {
        lastError.clear();
        return dds_create_domain(options.domain, options.getConfiguration(network, place).c_str());
    };
    // Without a free place, others find it by multicast. The margin is for those who take one at this moment.
    constexpr std::size_t kFew = 5;
    const bool isPlaceFree =
        network.findPlaces(options.domain).size() + kFew < static_cast<std::size_t>(kMaxDDSProcesses);
    const bool needsPlace = !options.usesMulticast(network);
    dds_entity_t domain = create(isPlaceFree || needsPlace);
    if (domain < 0 && isPlaceFree && !needsPlace &&
        KRHostNetwork::examine().findPlaces(options.domain).size() + kFew >=
            static_cast<std::size_t>(kMaxDDSProcesses)) {
        domain = create(false); // many have started at once
    }
    return checkDDS(domain, "domain " + std::to_string(options.domain));
}

void show(Joined& joined) noexcept {
    if (std::exchange(joined.hidden, false)) {
        if (joined.engine != nullptr) {
            krSetDiscoveryDeaf(std::exchange(joined.engine, nullptr), false);
        }
        dds_domain_set_deafmute(joined.domain, false, false, DDS_INFINITY);
    }
}

KRMutex domainsMutex;
std::map<std::uint32_t, Joined>& getDomains() KR_REQUIRES(domainsMutex) {
    static std::map<std::uint32_t, Joined> domains;
    return domains;
}

} // namespace

dds_return_t checkDDS(dds_return_t code, const std::string& what, KRSourceLocation where) {
    if (code >= 0) {
        lastError.clear();
        return code;
    }
    std::string text = "the DDS engine refuses the " + what + ": " + dds_strretcode(code);
    if (!lastError.empty()) {
        text += "; " + std::exchange(lastError, {});
    }
    throw KRError("KRBroker", "dds", text, where);
}

void flushEngineLog() {
    getErrors().flush();
    getWarnings().flush();
}

std::shared_ptr<KRDDSDomain> KRDDSDomain::join(const KRDDSOptions& options, bool meetsOnHost) {
    if (!options.security.empty()) {
        checkSecurityFiles(options.security);
    }
    const KRLock lock(domainsMutex);
    auto& domains = getDomains();
    const auto found = domains.find(options.domain);
    if (found == domains.end()) {
        dds_set_log_sink(writeLog, nullptr);
        const KRHostNetwork network = KRHostNetwork::examine();
        const dds_entity_t domain = createDomain(options, network);
        if (meetsOnHost) {
            dds_domain_set_deafmute(domain, true, true, DDS_INFINITY);
        }
        domains.emplace(options.domain,
                        Joined{options, options.staysOnHost(network), domain, 0, meetsOnHost});
    } else if (!found->second.options.agreesWith(options)) {
        throw KRError("KRBroker", "create",
                      "another broker of this process is on DDS domain " + std::to_string(options.domain) +
                          " with other peers, interfaces, lease, fragment or security");
    }
    Joined& joined = domains.at(options.domain);
    ++joined.brokers;
    joined.discovering += meetsOnHost ? 0 : 1;
    return std::shared_ptr<KRDDSDomain>(
        new KRDDSDomain(options.domain, joined.staysOnHost, meetsOnHost, joined.domain));
}

// While the engine is deaf, it wakes itself ten times a second by multicast, and so all other processes.
void KRDDSDomain::noticeEngine(ddsi_domaingv* engine) {
    const KRLock lock(domainsMutex);
    Joined& joined = getDomains().at(number_);
    if (!joined.hidden || joined.engine != nullptr) {
        return;
    }
    if (krSetDiscoveryDeaf(engine, true)) {
        joined.engine = engine;
        dds_domain_set_deafmute(domain_, false, true, DDS_INFINITY);
    } else {
        krSetDiscoveryDeaf(engine, false);
    }
}

void KRDDSDomain::show() noexcept {
    const KRLock lock(domainsMutex);
    KR::show(getDomains().find(number_)->second);
}

void KRDDSDomain::filterIgnored(ddsi_domaingv* engine) noexcept {
    const KRLock lock(domainsMutex);
    if (!getDomains().find(number_)->second.hidden) {
        krFilterIgnored(engine);
    }
}

bool KRDDSDomain::needsDiscovery() const {
    const KRLock lock(domainsMutex);
    return getDomains().at(number_).discovering > 0;
}

KRDDSDomain::~KRDDSDomain() {
    const KRLock lock(domainsMutex);
    auto& domains = getDomains();
    const auto found = domains.find(number_);
    found->second.discovering -= meetsOnHost_ ? 0 : 1;
    if (--found->second.brokers == 0) {
        KR::show(found->second); // the engine wakes its threads through the sockets
        dds_delete(found->second.domain);
        domains.erase(found);
    }
}

} // namespace KR
