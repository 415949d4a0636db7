#pragma once

#include "tool/arguments.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krproxy.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <chrono>
#include <string>

namespace KR::tool {

/// The brokers that a verb talks to, by its option --broker.
class Domain {
public:
    static constexpr const char* kDefaultUrl = "dds:";
    /// How long a verb waits for a module.
    static constexpr std::chrono::seconds kPatience{5};

    Argument declare(Arguments& arguments);
    const std::string& getUrl() const noexcept { return url_; }
    /// Whether the address says whether the memory module runs here. \throws KRError the address is malformed
    bool saysWhereMemoryIs() const;

    /// Makes a broker of this process that finds the others. \throws KRError the address is malformed or unusable
    boost::shared_ptr<KRBroker> connect() const;

private:
    std::string url_ = kDefaultUrl;
};

/// The options of a verb that lists something of a domain.
struct ListOptions {
    Domain domain;
    bool json = false;

    void declare(Arguments& arguments);
};

/// Whether an address says whether the memory module runs there. \throws KRError it is malformed
bool saysWhereMemoryIs(const std::string& url);

/// Makes a broker of this process at the address. \throws KRError the address is malformed or unusable
boost::shared_ptr<KRBroker> connectTo(const std::string& url);

/// Waits until the module can be called. \throws std::runtime_error it cannot within Domain::kPatience
void waitForModule(KRBroker& broker, const std::string& module);

} // namespace KR::tool
