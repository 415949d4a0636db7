#include "krdds/krdds.hpp"

#include "krlink.hpp"

#include <krplatform/krtransport.hpp>

namespace KR {

namespace {

KRBrokerOptions createLink(const std::string& url, KRTransportHost& host) {
    KRDDSOptions options = KRDDSOptions::parse(url);
    const bool memory = options.memory.value_or(false);
    return {memory, std::make_unique<KRLink>(std::move(options), host)};
}

[[maybe_unused]] const bool isRegistered = (registerDDS(), true);

} // namespace

KRDDSAddress parseDDSAddress(const std::string& url) {
    KRDDSOptions options = KRDDSOptions::parse(url);
    return {options.domain, std::move(options.name), options.memory, std::move(options.interfaces),
            !options.security.empty()};
}

void registerDDS() {
    registerTransport("dds:", createLink);
}

} // namespace KR
