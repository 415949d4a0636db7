// kr memory set

#include "command.hpp"
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
    std::string value;
};

ExitCode act(const Options& options) {
    const KRValue value = readValue(options.value);
    findMemory(options.domain.connect()).insertData(options.key, value);
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "memory",
    .name = "set",
    .summary = "Writes a value under a key, over whatever was there",
    .example = "  kr memory set Door/Open true\n"
               "  kr memory set Door/Position '[0.5, 1.25]'",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("KEY", options->key, "Key of the value")->required();
            verb.add_option("VALUE", options->value, "JSON; a word that is no JSON is a string")->required();
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
