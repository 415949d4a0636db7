#pragma once

#include <krplatform/krbroker.hpp>
#include <krplatform/krproxy.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <chrono>
#include <string>

namespace CLI {
class App;
}

namespace KR::tool {

/// The brokers that a verb talks to, as its option --broker says.
class Domain {
public:
    static constexpr const char* kDefaultUrl = "dds:";
    /// How long a verb looks for a module before it says that there is none.
    static constexpr std::chrono::seconds kPatience{5};

    void addOptions(CLI::App& verb);
    const std::string& getUrl() const noexcept { return url_; }

    /// A broker of this process among the others. \throws KRError the address is not understood, or of no use
    boost::shared_ptr<KRBroker> connect() const;
    /// The same with the memory module in it, unless the address says something about that.
    boost::shared_ptr<KRBroker> connectWithMemory() const;

private:
    std::string url_ = kDefaultUrl;
};

/// A broker of this process at the address. \throws KRError the address is not understood, or of no use
boost::shared_ptr<KRBroker> connectTo(const std::string& url);

/// Waits until the module can be called. \throws KRError it cannot, within Domain::kPatience
void waitForModule(KRBroker& broker, const std::string& module);

} // namespace KR::tool
