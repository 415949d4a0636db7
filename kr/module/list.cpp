// kr module list

#include "system/domain.hpp"
#include "system/internal.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    ListOptions list;
    bool all = false;

    void declare(Arguments& arguments) {
        arguments.addFlag("--all", all, "every module, those of running kr commands included");
        list.declare(arguments);
    }
};

ExitCode list(const Options& options) {
    auto modules = options.list.domain.connect()->getModuleList();
    if (!options.all) {
        std::erase_if(modules, isInternalModule);
    }
    printNames(modules, options.list.json);
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
               "  kr module list --json --broker 'dds:?domain=3'",
    .run = list,
});

} // namespace
} // namespace KR::tool
