// kr event raise

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"

#include <string>

namespace KR::tool::eventRaise {

namespace {

struct Options {
    Domain domain;
    std::string event;
    std::string value = "null";

    void declare(Arguments& arguments) {
        arguments.add("EVENT", event, "name of the event").required();
        arguments.add("VALUE", value, "JSON; a word that is not JSON is a string (default: null)");
        domain.declare(arguments);
    }
};

ExitCode raise(const Options& options) {
    const KRValue value = readValue(options.value);
    findMemory(options.domain.connect()).raiseEvent(options.event, value);
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "event",
    .name = "raise",
    .summary = "Raise an event, as a module would",
    .example = "  kr event raise Door/Opened '[\"front\", 0.5]'",
    .run = raise,
    .complete = completeEvent,
});

} // namespace
} // namespace KR::tool::eventRaise
