#include "client.hpp"

#include <krplatform/krbroker.hpp>

#include <array>
#include <utility>

#include <unistd.h>

namespace KR::tool {

Client::Client(boost::shared_ptr<KRBroker> broker, const std::string& name, OnEvent onEvent)
    : KRModule(std::move(broker), name), onEvent_(std::move(onEvent)) {
    functionName(kCallback, "Client", "Shows an event.");
    addParam("event", "Name of the event.");
    addParam("value", "What it was raised with.");
    advertiseMethod(getCurrentMethodDescription(), this, &Client::onEvent);
}

Client::~Client() {
    shutDown();
}

void Client::onEvent(const std::string& event, const KRValue& value) {
    onEvent_(event, value);
}

KRModuleHandle<Client> makeClient(const boost::shared_ptr<KRBroker>& broker, Client::OnEvent onEvent) {
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    const std::string name = "kr-" + std::string(host.data()) + "-" + std::to_string(::getpid());
    return createModule<Client>(broker, name, std::move(onEvent));
}

} // namespace KR::tool
