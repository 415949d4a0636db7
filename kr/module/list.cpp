// kr module list

#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <string>

namespace KR::tool {

namespace {

ExitCode list(const ListOptions& options) {
    const auto modules = options.domain.connect()->getModuleList();
    printNames(modules, options.json);
    if (modules.empty()) {
        printError("there are no modules on " + options.domain.getUrl() +
                   "; kr serve runs some, kr doctor helps");
    }
    return ExitCode::Done;
}

const GroupRegistration group("module", "Modules that can be called, and what they publish");

const VerbRegistration registration(Verb<ListOptions>{
    .group = "module",
    .name = "list",
    .summary = "List the modules of all brokers",
    .example = "  kr module list\n"
               "  kr module list --json --broker 'dds:?domain=3'",
    .run = list,
});

} // namespace
} // namespace KR::tool
