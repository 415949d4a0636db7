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

namespace KR::tool::memoryWatch {

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

constexpr int kMaxBytes = 1 << 16; // of a value; images are larger, and useless as text

/// The values that were printed last.
class Printed {
public:
    /// Whether the value differs from the one printed last; if so, it is stored as printed.
    bool isNews(const KRMemoryChange& change) {
        if (change.leftOut) {
            values_.erase(change.key); // unknown whether it differs
            return true;
        }
        const auto [entry, isNew] = values_.try_emplace(change.key);
        if (!isNew && entry->second == change.value) {
            return false;
        }
        entry->second = change.value;
        return true;
    }

private:
    std::map<std::string, KRValue> values_;
};

std::string formatLine(const KRMemoryChange& change, bool isJson) {
    const Json value = change.leftOut ? Json{{"bytes", change.bytes}} : toJson(change.value);
    return isJson ? formatJson({{"time_usec", change.written_usec}, {"key", change.key}, {"value", value}}) +
                        "\n"
                  : format("%7s  ", formatAge(change.written_usec).c_str()) + escapeText(change.key) + " " +
                        formatJson(value) + "\n";
}

ExitCode watch(const Options& options) {
    Interruption interruption;
    const auto broker = options.domain.connect();
    const KRMemoryProxy memory = findMemory(broker);
    Output output;
    Printed values;
    std::string last;
    int printed = 0;
    bool isAnswering = true;
    const auto end = options.watch.getEnd();
    const auto interval = std::chrono::duration_cast<WatchOptions::Clock::duration>(
        std::chrono::duration<double>(options.interval_s));
    WatchOptions::Clock::time_point next;
    do {
        next = std::min(end, WatchOptions::Clock::now() + interval);
        try {
            const KRMemoryChanges changes = memory.getDataChanges(options.prefix, last, kMaxBytes);
            for (const KRMemoryChange& change : changes.changes) {
                if (!options.watch.isEnough(printed) && values.isNews(change)) {
                    output.print(formatLine(change, options.watch.json), interruption);
                    ++printed;
                }
            }
            last = changes.now;
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
    .summary = "Print values as they change, one per line",
    .example = "  kr memory watch KRMotion/\n"
               "  kr memory watch KRMotion/ --seconds 10 --json\n"
               "Each line begins with how long ago the value was written.\n"
               "A value that changes and changes back between two readings is missed; kr event watch misses "
               "nothing. Of values of more than 64 KiB, such as images, only the size is printed.",
    .run = watch,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool::memoryWatch
