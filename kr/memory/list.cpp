// kr memory list

#include "command.hpp"
#include "json.hpp"
#include "livenames.hpp"
#include "memory.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string prefix;
    bool json = false;
};

ExitCode act(const Options& options) {
    const auto keys = findMemory(options.domain.connect()).getDataList(options.prefix);
    if (options.json) {
        printJson(keys);
        return ExitCode::Done;
    }
    for (const std::string& key : keys) {
        std::printf("%s\n", key.c_str());
    }
    return ExitCode::Done;
}

const GroupRegistration group("memory", "The values in the shared memory of the modules");

const CommandRegistration registration({
    .group = "memory",
    .name = "list",
    .summary = "Lists the keys that there are",
    .example = "  kr memory list\n"
               "  kr memory list KRMotion/",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("PREFIX", options->prefix, "What the keys begin with; without it all are listed");
            verb.add_flag("--json", options->json, "Lists them as a JSON array");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
