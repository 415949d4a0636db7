// kr param load

#include "param/liveparameters.hpp"
#include "param/parameterfile.hpp"
#include "system/domain.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"

#include <krplatform/krerror.hpp>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR::tool::paramLoad {

namespace {

struct Options {
    Domain domain;
    std::string file;

    void declare(Arguments& arguments) {
        arguments.add("FILE", file, "file that kr param save has written").required();
        domain.declare(arguments);
    }
};

// Problems with the values for this module, one per line.
std::vector<std::string> findProblems(KRBroker& broker, const std::string& module,
                                      const ParameterValues& values) {
    try {
        waitForModule(broker, module);
        const auto parameters = getParameterList(*broker.getProxy(module));
        std::vector<std::string> problems;
        for (const auto& [name, value] : values) {
            const auto found = std::ranges::find(parameters, name, &KRParameterInfo::name);
            std::string problem;
            if (found == parameters.end()) {
                problem = "there is no parameter " + name;
            } else {
                found->convert(value, problem);
            }
            if (!problem.empty()) {
                problems.push_back(module + ": " + problem);
            }
        }
        return problems;
    } catch (const KRError& error) {
        return {describe(error)};
    } catch (const std::runtime_error& error) { // there is no such module
        return {error.what()};
    }
}

ExitCode load(const Options& options) {
    const ModuleParameters modules = readParameterFile(options.file);
    const auto broker = options.domain.connect();
    std::string problems;
    for (const auto& [module, values] : modules) {
        for (const std::string& problem : findProblems(*broker, module, values)) {
            problems += "\n" + problem;
        }
    }
    if (!problems.empty()) {
        throw std::runtime_error(options.file + ": nothing is set" + problems);
    }
    bool refused = false;
    for (const auto& [module, values] : modules) {
        std::vector<KRValue> pairs;
        for (const auto& [name, value] : values) {
            pairs.push_back(KRValue::array(name, value));
        }
        try {
            broker->getProxy(module)->call("setParameterValues", pairs);
        } catch (const KRError& error) {
            printError(module + ": " + error.getDescription());
            refused = true;
        }
    }
    return refused ? ExitCode::Failed : ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "param",
    .name = "load",
    .summary = "Set parameters of modules from a file",
    .example =
        "  kr param load robot.json\n"
        "If a module or a parameter does not exist, or a value is out of range, all such problems are listed "
        "and nothing\n"
        "is set; the exit code is 1. If a module refuses a value, the others are set and the exit code is 1, "
        "too.",
    .run = load,
});

} // namespace
} // namespace KR::tool::paramLoad
