#include "system/domain.hpp"

#include "system/internal.hpp"

#include <krdds/krdds.hpp>

#include <stdexcept>

namespace KR::tool {

Argument Domain::declare(Arguments& arguments) {
    return arguments
        .add("--broker", url_, "address of the broker: dds: with options, see docs/several-machines.md")
        .valueName("URL")
        .completes({kDefaultUrl, "dds:?domain=", "dds:?peers="})
        .showDefault();
}

bool Domain::saysWhereMemoryIs() const {
    return tool::saysWhereMemoryIs(url_);
}

boost::shared_ptr<KRBroker> Domain::connect() const {
    return connectTo(url_);
}

void ListOptions::declare(Arguments& arguments) {
    arguments.addFlag("--json", json, "output as JSON");
    domain.declare(arguments);
}

bool saysWhereMemoryIs(const std::string& url) {
    return !url.starts_with("dds:") || parseDDSAddress(url).memory.has_value();
}

boost::shared_ptr<KRBroker> connectTo(const std::string& url) {
    registerDDS();
    return KRBroker::create(url);
}

void waitForModule(KRBroker& broker, const std::string& module) {
    if (!broker.getSession().waitForService(module, Domain::kPatience)) {
        std::string known;
        for (const std::string& name : broker.getModuleList()) {
            if (!isInternalModule(name)) {
                known += (known.empty() ? "" : ", ") + name;
            }
        }
        throw std::runtime_error("there is no module " + module +
                                 (known.empty() ? ", nor any other: is a broker running? "
                                                  "kr serve runs one, kr doctor helps"
                                                : "; modules are " + known));
    }
}

} // namespace KR::tool
