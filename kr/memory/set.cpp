// kr memory set

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"

#include <string>

namespace KR::tool::memorySet {

namespace {

struct Options {
    Domain domain;
    std::string key;
    std::string value;

    void declare(Arguments& arguments) {
        arguments.add("KEY", key, "key of the value").required();
        arguments.add("VALUE", value, "JSON; a word that is not JSON is a string").required();
        domain.declare(arguments);
    }
};

ExitCode set(const Options& options) {
    const KRValue value = readValue(options.value);
    findMemory(options.domain.connect()).insertData(options.key, value);
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "memory",
    .name = "set",
    .summary = "Write the value of a key, replacing the old one",
    .example = "  kr memory set Door/Open true\n"
               "  kr memory set Door/Position '[0.5, 1.25]'",
    .run = set,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool::memorySet
