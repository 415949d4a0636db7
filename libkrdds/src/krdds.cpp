#include "krdds/krdds.hpp"

#include "krlink.hpp"

#include <krplatform/krtransport.hpp>

namespace KR {

namespace {

class KRDDSTransport : public KRTransport {
public:
    KRDDSTransport(KRDDSOptions options, KRTransportHost& host)
        : link_(std::make_shared<KRLink>(std::move(options), host)) {}
    ~KRDDSTransport() override { link_->stop(); }

    void start() override { link_->start(); }
    void announceModules() noexcept override { link_->announceModules(); }
    void claim(const std::string& name) override { link_->claim(name); }
    KRBrokerDiagnostics getDiagnostics() const override { return link_->getDiagnostics(); }
    void stop() noexcept override { link_->stop(); }

private:
    const std::shared_ptr<KRLink> link_; // calls that come in hold it as well
};

KRBrokerOptions createLink(const std::string& url, KRTransportHost& host) {
    KRDDSOptions options = KRDDSOptions::parse(url);
    const bool memory = options.memory.value_or(false);
    return {memory, std::make_unique<KRDDSTransport>(std::move(options), host)};
}

[[maybe_unused]] const bool registered = (registerDDS(), true);

} // namespace

KRDDSAddress parseDDSAddress(const std::string& url) {
    KRDDSOptions options = KRDDSOptions::parse(url);
    return {options.domain, std::move(options.name), options.memory, std::move(options.interfaces),
            !options.security.empty()};
}

std::uint16_t getDDSPort(std::uint32_t domain, int index) {
    // Of participant i on domain d: DDSI-RTPS, 9.6.1.1.
    return static_cast<std::uint16_t>(7400 + 250 * static_cast<int>(domain) + 10 + 2 * index);
}

void registerDDS() {
    registerTransport("dds:", createLink);
}

} // namespace KR
