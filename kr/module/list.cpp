// kr module list

#include "command.hpp"
#include "domain.hpp"
#include "json.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    bool json = false;
};

ExitCode act(const Options& options) {
    const auto broker = options.domain.connect();
    const auto modules = broker->getModuleList();
    if (options.json) {
        printJson(modules);
    } else {
        for (const std::string& module : modules) {
            std::printf("%s\n", module.c_str());
        }
    }
    if (modules.empty()) {
        complain("no broker has a module on " + options.domain.getUrl() +
                 "; kr serve runs one, kr doctor helps");
    }
    return ExitCode::Done;
}

const GroupRegistration group("module", "The modules that can be called, and what they publish");

const CommandRegistration registration({
    .group = "module",
    .name = "list",
    .summary = "Lists the modules of all brokers",
    .example = "  kr module list\n"
               "  kr module list --json --broker 'dds:?domain=3'",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_flag("--json", options->json, "Lists them as a JSON array");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
});

} // namespace
} // namespace KR::tool
