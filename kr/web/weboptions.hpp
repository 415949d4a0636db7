#pragma once

#include "serve/robot.hpp"

#include <krplatform/krbroker.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR {
class KRWebServer;
}

namespace KR::tool {

class Arguments;

/// The options of the web server: of kr web, and with "--web-" before them of kr serve.
class WebOptions {
public:
    /// Those of kr web.
    void declare(Arguments& arguments);
    /// Those of kr serve, where there is no server unless --web is given.
    void declareForServe(Arguments& arguments);

    /// The equivalent section of a file; nullopt without a server.
    std::optional<RobotWeb> getWeb() const;
    /// Those of a file, in place of the command line's.
    void setWeb(const RobotWeb& web);

    /// Starts the server, and prints the address to open on standard error; null if --web is not given.
    /// \throws UsageError a malformed option \throws std::runtime_error the token cannot be read; the address is in use
    std::unique_ptr<KRWebServer> start(const boost::shared_ptr<KRBroker>& broker,
                                       const std::string& domain) const;

private:
    void declareAccess(Arguments& arguments, const std::string& prefix);

    std::string address_; // "" for none
    std::string tokenFile_;
    bool open_ = false;
    bool readOnly_ = false;
    std::vector<std::string> allowedOrigins_;
};

} // namespace KR::tool
