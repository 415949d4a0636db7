// kr memory get

#include "system/livenames.hpp"
#include "system/memory.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <string>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string key;

    void declare(Arguments& arguments) {
        arguments.add("KEY", key, "key of the value").required();
        domain.declare(arguments);
    }
};

ExitCode get(const Options& options) {
    printJson(toJson(findMemory(options.domain.connect()).getData(options.key)));
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "memory",
    .name = "get",
    .summary = "Print the value of a key as JSON",
    .example = "  kr memory get KRMotion/Motion",
    .run = get,
    .complete = completeMemoryKey,
});

} // namespace
} // namespace KR::tool
