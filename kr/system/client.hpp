#pragma once

#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvalue.hpp>

#include <functional>
#include <string>

namespace KR::tool {

/// This program as a module, to receive events.
class Client : public KRModule {
public:
    /// Receives the name and the value of each event, on a call thread, one at a time per event.
    using OnEvent = std::function<void(const std::string& event, const KRValue& value)>;
    /// Receives how many events the memory dropped because onEvent was too slow, on a call thread.
    using OnLoss = std::function<void(const std::string& event, int count)>;

    /// The name of its method for events.
    static constexpr const char* kCallback = "onEvent";

    Client(boost::shared_ptr<KRBroker> broker, const std::string& name, OnEvent onEvent, OnLoss onLoss);
    ~Client() override;

    void onEvent(const std::string& event, const KRValue& value);
    /// Called by the memory under this name.
    void onEventsLost(const std::string& event, int count);

private:
    const OnEvent onEvent_;
    const OnLoss onLoss_;
};

/// A name unique to this process: "kr-HOST-PROCESS".
std::string makeClientName();

/// Makes a client under that name.
KRModuleHandle<Client> makeClient(const boost::shared_ptr<KRBroker>& broker, Client::OnEvent onEvent,
                                  Client::OnLoss onLoss);

} // namespace KR::tool
