#include "krddsdomain.hpp"

#include "krsecurityfiles.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <dds/ddsrt/log.h>

#include <map>
#include <mutex>

namespace KR {

namespace {

constexpr const char* kCategory = "krdds.engine";

// The last thing that the engine complained of on this thread: its codes alone tell little.
thread_local std::string lastComplaint;

void writeLog(void*, const dds_log_data_t* record) {
    std::string message(record->message, record->size);
    while (!message.empty() && message.back() == '\n') {
        message.pop_back();
    }
    if ((record->priority & (DDS_LC_ERROR | DDS_LC_FATAL)) != 0) {
        lastComplaint = message;
        logError(kCategory, message);
    } else if ((record->priority & DDS_LC_WARNING) != 0 &&
               message.find("not multicast-capable") == std::string::npos) { // as the loopback interface is
        logWarning(kCategory, message);
    } else {
        logVerbose(kCategory, message);
    }
}

struct Joined {
    std::string configuration;
    dds_entity_t domain;
    int brokers;
};

std::mutex domainsMutex;
std::map<std::uint32_t, Joined>& getDomains() { // with domainsMutex held
    static std::map<std::uint32_t, Joined> domains;
    return domains;
}

} // namespace

dds_return_t checkDDS(dds_return_t code, const std::string& what, KRSourceLocation where) {
    if (code >= 0) {
        lastComplaint.clear();
        return code;
    }
    std::string text = "the DDS engine refuses the " + what + ": " + dds_strretcode(code);
    if (!lastComplaint.empty()) {
        text += "; " + std::exchange(lastComplaint, {});
    }
    throw KRError("KRBroker", "dds", text, where);
}

std::shared_ptr<KRDDSDomain> KRDDSDomain::join(const KRDDSOptions& options) {
    if (!options.security.empty()) {
        checkSecurityFiles(options.security);
    }
    const std::string configuration = options.getConfiguration();
    const std::lock_guard lock(domainsMutex);
    auto& domains = getDomains();
    const auto found = domains.find(options.domain);
    if (found == domains.end()) {
        dds_set_log_sink(writeLog, nullptr);
        lastComplaint.clear();
        const std::string what = "domain " + std::to_string(options.domain);
        const dds_entity_t domain = checkDDS(dds_create_domain(options.domain, configuration.c_str()), what);
        domains.emplace(options.domain, Joined{configuration, domain, 1});
    } else if (found->second.configuration != configuration) {
        throw KRError("KRBroker", "create",
                      "another broker of this process is on DDS domain " + std::to_string(options.domain) +
                          " with other peers, interfaces, lease, fragment or security");
    } else {
        ++found->second.brokers;
    }
    return std::shared_ptr<KRDDSDomain>(new KRDDSDomain(options.domain));
}

KRDDSDomain::~KRDDSDomain() {
    const std::lock_guard lock(domainsMutex);
    auto& domains = getDomains();
    const auto found = domains.find(number_);
    if (--found->second.brokers == 0) {
        dds_delete(found->second.domain);
        domains.erase(found);
    }
}

} // namespace KR
