#pragma once

#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvalue.hpp>

#include <functional>
#include <string>

namespace KR::tool {

/// The program as a module among the others, where it has to be one: to be told of events.
class Client : public KRModule {
public:
    /// Called with the name and the value of each event, on a call thread, one at a time per event.
    using OnEvent = std::function<void(const std::string& event, const KRValue& value)>;

    /// The name of its method for events.
    static constexpr const char* kCallback = "onEvent";

    Client(boost::shared_ptr<KRBroker> broker, const std::string& name, OnEvent onEvent);
    ~Client() override;

    void onEvent(const std::string& event, const KRValue& value);

private:
    const OnEvent onEvent_;
};

/// A client under a name that no other process has.
KRModuleHandle<Client> makeClient(const boost::shared_ptr<KRBroker>& broker, Client::OnEvent onEvent);

} // namespace KR::tool
