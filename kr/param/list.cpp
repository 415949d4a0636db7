// kr param list

#include "param/liveparameters.hpp"
#include "param/parameterfile.hpp"
#include "system/domain.hpp"
#include "system/livenames.hpp"
#include "tool/command.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <cstdio>
#include <string>

namespace KR::tool::paramList {

namespace {

struct Options {
    Domain domain;
    std::string module;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", module, "name of a module; all modules without it");
        arguments.addFlag("--json", json, "output as JSON");
        domain.declare(arguments);
    }
};

// What may stand behind a value on its line: its unit, or what else it could be.
std::string describe(const KRParameterInfo& parameter) {
    return parameter.type == KRParameterInfo::Type::Text ? "" : parameter.describeRange();
}

ExitCode list(const Options& options) {
    const auto broker = options.domain.connect();
    bool failed = false;
    const auto modules = readParameters(*broker, options.module, failed);
    Json json = Json::array();
    std::size_t nameWidth = 0;
    std::size_t valueWidth = 0;
    for (const auto& [module, parameters] : modules) {
        for (const KRParameterInfo& each : parameters) {
            json.push_back(toJson(module, each));
            nameWidth = std::max(nameWidth, escapeText(module + "." + each.name).size());
            valueWidth = std::max(valueWidth, escapeText(each.format(each.value)).size());
        }
    }
    if (options.json) {
        printJson(json);
        return failed ? ExitCode::Failed : ExitCode::Done;
    }
    for (const auto& [module, parameters] : modules) {
        for (const KRParameterInfo& each : parameters) {
            std::printf("%-*s  %-*s  %s\n", static_cast<int>(nameWidth),
                        escapeText(module + "." + each.name).c_str(), static_cast<int>(valueWidth),
                        escapeText(each.format(each.value)).c_str(), escapeText(describe(each)).c_str());
        }
    }
    return failed ? ExitCode::Failed : ExitCode::Done;
}

const GroupRegistration group("param", "Parameters of modules: what can be set while they run");

const VerbRegistration registration(Verb<Options>{
    .group = "param",
    .name = "list",
    .summary = "List the parameters of modules with value and range",
    .example = "  kr param list\n"
               "  kr param list KRMotion --json",
    .run = list,
    .complete = completeModule,
});

} // namespace
} // namespace KR::tool::paramList
