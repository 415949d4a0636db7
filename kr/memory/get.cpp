// kr memory get

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"
#include "tool/timestamp.hpp"

#include <cstdint>
#include <string>

namespace KR::tool::memoryGet {

namespace {

struct Options {
    Domain domain;
    std::string key;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("KEY", key, "key of the value").required();
        arguments.addFlag("--json", json, "output of key, time and value as a JSON object");
        domain.declare(arguments);
    }
};

ExitCode get(const Options& options) {
    const KRMemoryProxy memory = findMemory(options.domain.connect());
    const Json value = toJson(memory.getData(options.key));
    const std::int64_t time = memory.getTimestamp(options.key);
    if (options.json) {
        printJson({{"key", options.key}, {"time_usec", time}, {"value", value}});
        return ExitCode::Done;
    }
    printJson(value);
    printError(options.key + " was written " + formatAge(time) + " ago");
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "memory",
    .name = "get",
    .summary = "Print the value of a key as JSON, and its age on standard error",
    .example = "  kr memory get KRMotion/Motion\n"
               "  kr memory get KRMotion/Motion --json",
    .run = get,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool::memoryGet
