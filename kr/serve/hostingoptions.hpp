#pragma once

#include "param/parameterfile.hpp"
#include "serve/robot.hpp"

#include <krplatform/krbroker.hpp>

#include <map>
#include <string>
#include <vector>

namespace KR::tool {

class Arguments;
class Host;

/// Options of kr run and kr serve for the modules that they host: parameters and subscriptions.
class HostingOptions {
public:
    void declare(Arguments& arguments);

    /// Has the broker set the parameters of modules when they are created. Reports sections of a file for other modules.
    /// \param modules  names of the modules that are going to be hosted
    /// \throws UsageError a malformed value; one for a module that is not hosted
    /// \throws std::runtime_error the file cannot be used
    void giveParameters(KRBroker& broker, const std::vector<std::string>& modules) const;

    /// The same values, by module.
    /// \throws UsageError, std::runtime_error as giveParameters()
    std::map<std::string, ParameterValues> readParameters(const std::vector<std::string>& modules) const;

    /// Subscribes for the lifetime of the host. \throws UsageError a malformed subscription
    void subscribe(const boost::shared_ptr<KRBroker>& broker, Host& host) const;
    /// \throws UsageError a malformed subscription
    std::vector<RobotSubscription> readSubscriptions() const;

    /// Whether none of them was given.
    bool isEmpty() const noexcept {
        return parameters_.empty() && parameterFile_.empty() && subscriptions_.empty();
    }

private:
    std::vector<std::string> parameters_;
    std::string parameterFile_;
    std::vector<std::string> subscriptions_;
};

} // namespace KR::tool
