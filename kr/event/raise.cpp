// kr event raise

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
    std::string event;
    std::string value = "null";
};

ExitCode act(const Options& options) {
    const KRValue value = readValue(options.value);
    findMemory(options.domain.connect()).raiseEvent(options.event, value);
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "event",
    .name = "raise",
    .summary = "Raises an event, as a module would",
    .example = "  kr event raise Door/Opened '[\"front\", 0.5]'",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("EVENT", options->event, "Name of the event")->required();
            verb.add_option("VALUE", options->value,
                            "JSON; a word that is no JSON is a string (default: null)");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
    .complete = completeEvent,
});

} // namespace
} // namespace KR::tool
