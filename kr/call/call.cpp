// kr call

#include "command.hpp"
#include "domain.hpp"
#include "json.hpp"
#include "livenames.hpp"
#include "valuejson.hpp"

#include <krplatform/krerror.hpp>

#include <CLI/CLI.hpp>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string module;
    std::string method;
    std::vector<std::string> arguments;
};

ExitCode act(const Options& options) {
    std::vector<KRValue> arguments;
    for (const std::string& argument : options.arguments) {
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

const CommandRegistration registration({
    .group = "",
    .name = "call",
    .summary = "Calls a method of a module and prints its result as JSON",
    .example = "  kr call KRMotion getCurrentPeriod\n"
               "  kr call KRMotion subscribe me 100 1.0\n"
               "  kr call KRMemory insertData greeting '[\"hello\", 3, 0.5]'\n"
               "Behind module and method come the arguments, JSON each: 3, 0.5, true, '\"text\"', '[1, 2]',\n"
               "'{\"base64\": \"AAE=\"}'. A word that is no JSON is a string.",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("MODULE", options->module, "Name of the module")->required();
            verb.add_option("METHOD", options->method, "Name of the method; kr module info lists them")
                ->required();
            // What remains, and not an option that takes many: CLI11 would take "[1, 2]" for two arguments.
            verb.allow_extras();
            options->domain.addOptions(verb);
            return [options, &verb] {
                options->arguments = verb.remaining();
                return act(*options);
            };
        },
    .complete = completeModuleAndMethod,
});

} // namespace
} // namespace KR::tool
