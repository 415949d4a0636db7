#include "domain.hpp"

#include <krdds/krdds.hpp>

#include <krplatform/krerror.hpp>

#include <CLI/CLI.hpp>

namespace KR::tool {

void Domain::addOptions(CLI::App& verb) {
    verb.add_option("--broker", url_,
                    "Address of the broker: dds: with options, as docs/several-machines.md tells")
        ->type_name("URL")
        ->capture_default_str();
}

boost::shared_ptr<KRBroker> Domain::connect() const {
    return connectTo(url_);
}

boost::shared_ptr<KRBroker> Domain::connectWithMemory() const {
    const bool isDecided = !url_.starts_with("dds:") || url_.find("memory=") != std::string::npos;
    const char* const separator = url_.find('?') == std::string::npos ? "?" : "&";
    return connectTo(isDecided ? url_ : url_ + separator + "memory=here");
}

boost::shared_ptr<KRBroker> connectTo(const std::string& url) {
    registerDDS();
    return KRBroker::create(url);
}

void waitForModule(KRBroker& broker, const std::string& module) {
    if (!broker.getSession().waitForService(module, Domain::kPatience)) {
        std::string known;
        for (const std::string& name : broker.getModuleList()) {
            known += (known.empty() ? "" : ", ") + name;
        }
        throw KRError("kr", "waitForModule",
                      "there is no module " + module +
                          (known.empty() ? ", nor any other: is a broker running? "
                                           "kr serve runs one, kr doctor helps"
                                         : "; there is " + known));
    }
}

} // namespace KR::tool
