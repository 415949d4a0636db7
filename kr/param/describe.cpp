// kr param describe

#include "param/liveparameters.hpp"
#include "param/parameterfile.hpp"
#include "system/domain.hpp"
#include "system/livenames.hpp"
#include "tool/command.hpp"

#include <krplatform/krtext.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool::paramDescribe {

namespace {

struct Options {
    Domain domain;
    std::string module;
    std::string name;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", module, "name of the module").required();
        arguments.add("NAME", name, "name of a parameter; all of them without it");
        arguments.addFlag("--json", json, "output as JSON");
        domain.declare(arguments);
    }
};

void print(const KRParameterInfo& parameter) {
    const auto printLine = [](const std::string& line) { std::printf("%s\n", escapeText(line).c_str()); };
    printLine(parameter.name + " (" + parameter.getTypeName() + ")");
    if (!parameter.description.empty()) {
        printLine("    " + parameter.description);
    }
    printLine("    takes " + parameter.describeRange());
    printLine("    is " + parameter.format(parameter.value) + ", at the start " +
              parameter.format(parameter.defaultValue));
}

ExitCode describe(const Options& options) {
    const auto broker = options.domain.connect();
    std::vector<KRParameterInfo> parameters;
    if (options.name.empty()) {
        waitForModule(*broker, options.module);
        parameters = getParameterList(*broker->getProxy(options.module));
    } else {
        parameters.push_back(readParameter(*broker, options.module, options.name));
    }
    Json json = Json::array();
    for (const KRParameterInfo& parameter : parameters) {
        if (options.json) {
            json.push_back(toJson(options.module, parameter));
        } else {
            print(parameter);
        }
    }
    if (options.json) {
        printJson(json);
    } else if (parameters.empty()) {
        printError(options.module + " has no parameters");
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "param",
    .name = "describe",
    .summary = "Describe the parameters of a module and their possible values",
    .example = "  kr param describe KRMotion\n"
               "  kr param describe KRMotion threshold",
    .run = describe,
    .complete = completeModuleAndParameter,
});

} // namespace
} // namespace KR::tool::paramDescribe
