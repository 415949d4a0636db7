#include "domain.hpp"

#include <krdds/krdds.hpp>

#include <krplatform/krerror.hpp>

#include <CLI/CLI.hpp>

#include <thread>
#include <vector>

namespace KR::tool {

void Domain::addOptions(CLI::App& verb) {
    verb.add_option("--broker", url_,
                    "Address of the broker: dds: with options, as docs/several-machines.md tells")
        ->type_name("URL")
        ->capture_default_str();
}

boost::shared_ptr<KRBroker> Domain::connect() const {
    registerDDS();
    return KRBroker::create(url_);
}

boost::shared_ptr<KRBroker> Domain::connectWithMemory() const {
    registerDDS();
    const bool isDecided = !url_.starts_with("dds:") || url_.find("memory=") != std::string::npos;
    const char* const separator = url_.find('?') == std::string::npos ? "?" : "&";
    return KRBroker::create(isDecided ? url_ : url_ + separator + "memory=here");
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

void waitForOthers(const KRBroker& broker) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kQuiet{500};
    constexpr std::chrono::milliseconds kStep{20};
    const auto end = Clock::now() + Domain::kPatience;
    auto modules = broker.getModuleList();
    auto quietSince = Clock::now();
    // Nobody to be seen yet is no reason to stop: who is there takes a moment to answer.
    while (Clock::now() < end && (modules.empty() || Clock::now() - quietSince < kQuiet)) {
        std::this_thread::sleep_for(kStep);
        auto now = broker.getModuleList();
        if (now != modules) {
            modules = std::move(now);
            quietSince = Clock::now();
        }
    }
}

} // namespace KR::tool
