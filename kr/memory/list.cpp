// kr memory list

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"
#include "tool/timestamp.hpp"

#include <krplatform/krtext.hpp>

#include <cstdio>
#include <string>

namespace KR::tool::memoryList {

namespace {

struct Options {
    Domain domain;
    std::string prefix;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("PREFIX", prefix, "prefix of the keys (default: all keys)");
        arguments.addFlag("--json", json, "output as JSON");
        domain.declare(arguments);
    }
};

ExitCode list(const Options& options) {
    const KRMemoryProxy memory = findMemory(options.domain.connect());
    Json keys = Json::array();
    // All in one call, without the values.
    for (const KRMemoryChange& stored : memory.getDataChanges(options.prefix, "", 0).changes) {
        if (options.json) {
            keys.push_back({{"key", stored.key}, {"time_usec", stored.written_usec}});
        } else {
            std::printf("%7s  %s\n", formatAge(stored.written_usec).c_str(), escapeText(stored.key).c_str());
        }
    }
    if (options.json) {
        printJson(keys);
    }
    return ExitCode::Done;
}

const GroupRegistration group("memory", "Read, write and watch values in the memory that all modules share");

const VerbRegistration registration(Verb<Options>{
    .group = "memory",
    .name = "list",
    .summary = "List the keys, and how long ago each was written",
    .example = "  kr memory list\n"
               "  kr memory list KRMotion/",
    .run = list,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool::memoryList
