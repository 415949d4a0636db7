// kr module list

#include "system/domain.hpp"
#include "system/internal.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace KR::tool::moduleList {

namespace {

struct Options {
    ListOptions list;
    bool all = false;
    bool verbose = false;

    void declare(Arguments& arguments) {
        arguments.addFlag("--all", all, "every module, including those of running kr commands");
        arguments.addFlag("--verbose", verbose, "also where each module runs and how it is called");
        list.declare(arguments);
    }
};

void printLocations(const KRBroker& broker, const Options& options) {
    Json list = Json::array();
    std::map<std::string, std::string> lines; // by module
    for (const KRPeerDiagnostics& peer : broker.getDiagnostics().peers) {
        for (const std::string& module : peer.modules) {
            if (options.all || !isInternalModule(module)) {
                lines[module] += module + ", " + peer.location + ", " + peer.way + "\n";
                list.push_back({{"name", module},
                                {"location", peer.location},
                                {"local", peer.local},
                                {"way", peer.way}});
            }
        }
    }
    if (options.list.json) {
        printJson(list);
        return;
    }
    for (const auto& [module, text] : lines) {
        std::printf("%s", text.c_str());
    }
}

ExitCode list(const Options& options) {
    const auto broker = options.list.domain.connect();
    auto modules = broker->getModuleList();
    if (!options.all) {
        std::erase_if(modules, isInternalModule);
    }
    if (options.verbose) {
        printLocations(*broker, options);
    } else {
        printNames(modules, options.list.json);
    }
    if (modules.empty()) {
        printError("there are no modules on " + options.list.domain.getUrl() +
                   "; kr serve runs some, kr doctor helps");
    }
    return ExitCode::Done;
}

const GroupRegistration group("module", "List modules that can be called, and what they publish");

const VerbRegistration registration(Verb<Options>{
    .group = "module",
    .name = "list",
    .summary = "List the modules of all brokers",
    .example = "  kr module list\n"
               "  kr module list --verbose\n"
               "  kr module list --json --broker 'dds:?domain=3'",
    .run = list,
});

} // namespace
} // namespace KR::tool::moduleList
