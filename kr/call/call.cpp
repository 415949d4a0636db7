// kr call

#include "system/domain.hpp"
#include "system/livenames.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <krplatform/krerror.hpp>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string module;
    std::string method;
    std::function<std::vector<std::string>()> getArguments;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", module, "name of the module").required();
        arguments.add("METHOD", method, "name of the method; kr module info lists them").required();
        getArguments = arguments.acceptMore(); // an argument that takes several values would split "[1, 2]"
        domain.declare(arguments);
    }
};

ExitCode call(const Options& options) {
    std::vector<KRValue> arguments;
    for (const std::string& argument : options.getArguments()) {
        if (argument.starts_with("--")) {
            throw UsageError("there is no option " + argument + "; a string of that kind needs quotes: '\"" +
                             argument + "\"'");
        }
        arguments.push_back(readValue(argument));
    }
    const auto broker = options.domain.connect();
    waitForModule(*broker, options.module);
    try {
        const KRValue result = broker->getProxy(options.module)->callValues(options.method, arguments);
        if (result.isValid()) {
            printJson(toJson(result));
        }
    } catch (const KRError& error) {
        throw std::runtime_error(options.module + "." + options.method + ": " + error.getDescription());
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "",
    .name = "call",
    .summary = "Call a method of a module and print its result as JSON",
    .example = "  kr call KRMotion getCurrentPeriod\n"
               "  kr call KRMotion subscribe me 100 1.0\n"
               "  kr call KRMemory insertData greeting '[\"hello\", 3, 0.5]'\n"
               "The arguments follow the method, JSON each: 3, 0.5, true, '\"text\"', '[1, 2]',\n"
               "'{\"base64\": \"AAE=\"}'. A word that is not JSON is a string.",
    .run = call,
    .complete = completeModuleAndMethod,
});

} // namespace
} // namespace KR::tool
