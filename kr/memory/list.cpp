// kr memory list

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string prefix;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("PREFIX", prefix, "beginning of the keys; all keys without it");
        arguments.addFlag("--json", json, "output as a JSON array");
        domain.declare(arguments);
    }
};

ExitCode list(const Options& options) {
    printNames(findMemory(options.domain.connect()).getDataList(options.prefix), options.json);
    return ExitCode::Done;
}

const GroupRegistration group("memory", "Values in the memory that all modules share");

const VerbRegistration registration(Verb<Options>{
    .group = "memory",
    .name = "list",
    .summary = "List the keys",
    .example = "  kr memory list\n"
               "  kr memory list KRMotion/",
    .run = list,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
