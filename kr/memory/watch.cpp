// kr memory watch

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/json.hpp"
#include "tool/output.hpp"
#include "tool/timestamp.hpp"

#include <krplatform/krtext.hpp>

#include <chrono>
#include <map>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string prefix;
    int interval_ms = 200;

    void declare(Arguments& arguments) {
        arguments.add("PREFIX", prefix, "beginning of the keys; all keys without it");
        arguments.add("--interval", interval_ms, "milliseconds between two readings")
            .wholeNumber(10, 3600000)
            .showDefault();
        domain.declare(arguments);
    }
};

std::map<std::string, KRValue> readValues(const KRMemoryProxy& memory, const std::string& prefix) {
    std::map<std::string, KRValue> values;
    for (const std::string& key : memory.getDataList(prefix)) {
        try {
            values[key] = memory.getData(key);
        } catch (const KRError&) { // removed meanwhile
        }
    }
    return values;
}

ExitCode watch(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    const KRMemoryProxy memory = findMemory(broker);
    Output output;
    std::map<std::string, KRValue> before;
    bool isAnswering = true;
    do {
        try {
            std::map<std::string, KRValue> now = readValues(memory, options.prefix);
            for (const auto& [key, value] : now) {
                const auto old = before.find(key);
                if (old == before.end() || !(old->second == value)) {
                    output.print(format("%7s  ", formatAge(memory.getTimestamp(key)).c_str()) +
                                     escapeText(key) + " " + formatJson(toJson(value)) + "\n",
                                 interruption);
                }
            }
            before = std::move(now);
            isAnswering = true;
        } catch (const KRError& error) { // the memory may be restarting
            if (isAnswering) {
                printError(error.getDescription());
            }
            isAnswering = false;
        }
    } while (!output.isBroken() && !interruption.waitFor(std::chrono::milliseconds(options.interval_ms)));
    return output.finish(interruption);
}

const VerbRegistration registration(Verb<Options>{
    .group = "memory",
    .name = "watch",
    .summary = "Print values as they change, a line each, until Ctrl-C",
    .example = "  kr memory watch KRMotion/\n"
               "Each line begins with how long ago the value was written.\n"
               "A value that changes and changes back between two readings is missed; kr event watch misses "
               "nothing.",
    .run = watch,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
