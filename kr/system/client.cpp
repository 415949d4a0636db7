#include "system/client.hpp"

#include <krplatform/krbroker.hpp>

#include <array>
#include <utility>

#include <unistd.h>

namespace KR::tool {

Client::Client(boost::shared_ptr<KRBroker> broker, const std::string& name, OnEvent onEvent, OnLoss onLoss)
    : KRModule(std::move(broker), name), onEvent_(std::move(onEvent)), onLoss_(std::move(onLoss)) {
    functionName(kCallback, "Client", "Shows an event.");
    addParam("event", "Name of the event.");
    addParam("value", "Value that it was raised with.");
    advertiseMethod(getCurrentMethodDescription(), this, &Client::onEvent);
    functionName("onEventsLost", "Client", "Counts events that were dropped on the way here.");
    addParam("event", "Name of the event.");
    addParam("count", "How many were dropped since the last call.");
    advertiseMethod(getCurrentMethodDescription(), this, &Client::onEventsLost);
}

Client::~Client() {
    shutDown();
}

void Client::onEvent(const std::string& event, const KRValue& value) {
    onEvent_(event, value);
}

void Client::onEventsLost(const std::string& event, int count) {
    onLoss_(event, count);
}

std::string makeClientName() {
    std::array<char, 256> host{};
    ::gethostname(host.data(), host.size() - 1);
    return "kr-" + std::string(host.data()) + "-" + std::to_string(::getpid());
}

KRModuleHandle<Client> makeClient(const boost::shared_ptr<KRBroker>& broker, Client::OnEvent onEvent,
                                  Client::OnLoss onLoss) {
    return createModule<Client>(broker, makeClientName(), std::move(onEvent), std::move(onLoss));
}

} // namespace KR::tool
