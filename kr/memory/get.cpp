// kr memory get

#include "command.hpp"
#include "json.hpp"
#include "livenames.hpp"
#include "memory.hpp"
#include "valuejson.hpp"

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string key;
};

ExitCode act(const Options& options) {
    printJson(toJson(findMemory(options.domain.connect()).getData(options.key)));
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "memory",
    .name = "get",
    .summary = "Prints the value under a key as JSON",
    .example = "  kr memory get KRMotion/Motion",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("KEY", options->key, "Key of the value")->required();
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
