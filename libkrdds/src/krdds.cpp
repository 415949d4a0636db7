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
    void stop() noexcept override { link_->stop(); }

private:
    const std::shared_ptr<KRLink> link_; // calls that come in hold it as well
};

KRBrokerOptions createLink(const std::string& url, KRTransportHost& host) {
    KRDDSOptions options = KRDDSOptions::parse(url);
    const bool memory = options.memory;
    return {memory, std::make_unique<KRDDSTransport>(std::move(options), host)};
}

[[maybe_unused]] const bool registered = (registerDDS(), true);

} // namespace

void registerDDS() {
    registerTransport("dds:", createLink);
}

} // namespace KR
