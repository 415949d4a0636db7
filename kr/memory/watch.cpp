// kr memory watch

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/format.hpp"
#include "tool/interruption.hpp"
#include "tool/json.hpp"
#include "tool/output.hpp"
#include "tool/timestamp.hpp"
#include "tool/watchoptions.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string prefix;
    double interval_s = 0.2;
    WatchOptions watch;

    void declare(Arguments& arguments) {
        arguments.add("PREFIX", prefix, "beginning of the keys; all keys without it");
        arguments.add("--interval", interval_s, "seconds between two readings")
            .realNumber(0.01, 3600)
            .showDefault();
        watch.declare(arguments, "values", "a JSON object per value, a line each");
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

std::string formatLine(const std::string& key, const KRValue& value, std::int64_t written, bool isJson) {
    return isJson ? formatJson({{"time_usec", written}, {"key", key}, {"value", toJson(value)}}) + "\n"
                  : format("%7s  ", formatAge(written).c_str()) + escapeText(key) + " " +
                        formatJson(toJson(value)) + "\n";
}

ExitCode watch(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    const KRMemoryProxy memory = findMemory(broker);
    Output output;
    std::map<std::string, KRValue> before;
    int printed = 0;
    bool isAnswering = true;
    const auto end = options.watch.getEnd();
    const auto interval = std::chrono::duration_cast<WatchOptions::Clock::duration>(
        std::chrono::duration<double>(options.interval_s));
    WatchOptions::Clock::time_point next;
    do {
        next = std::min(end, WatchOptions::Clock::now() + interval);
        try {
            std::map<std::string, KRValue> now = readValues(memory, options.prefix);
            for (const auto& [key, value] : now) {
                const auto old = before.find(key);
                const bool isNew = old == before.end() || !(old->second == value);
                if (isNew && !options.watch.isEnough(printed)) {
                    output.print(formatLine(key, value, memory.getTimestamp(key), options.watch.json),
                                 interruption);
                    ++printed;
                }
            }
            before = std::move(now);
            isAnswering = true;
        } catch (const KRError& error) { // the memory may be restarting
            if (isAnswering) {
                printError(describe(error));
            }
            isAnswering = false;
        }
    } while (!output.isBroken() && !options.watch.isEnough(printed) &&
             !interruption.waitFor(
                 std::chrono::ceil<std::chrono::milliseconds>(next - WatchOptions::Clock::now())) &&
             WatchOptions::Clock::now() < end);
    return output.finish(interruption);
}

const VerbRegistration registration(Verb<Options>{
    .group = "memory",
    .name = "watch",
    .summary = "Print values as they change, a line each",
    .example = "  kr memory watch KRMotion/\n"
               "  kr memory watch KRMotion/ --seconds 10 --json\n"
               "Each line begins with how long ago the value was written.\n"
               "A value that changes and changes back between two readings is missed; kr event watch misses "
               "nothing.",
    .run = watch,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
