// kr module info

#include "system/domain.hpp"
#include "system/internal.hpp"
#include "system/livenames.hpp"
#include "tool/command.hpp"
#include "tool/json.hpp"

#include <krplatform/krmodule.hpp>
#include <krplatform/krtext.hpp>

#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool::moduleInfo {

namespace {

struct Options {
    Domain domain;
    std::string module;
    bool all = false;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("MODULE", module, "name of the module").required();
        arguments.addFlag("--all", all, "every method, internal ones included");
        arguments.addFlag("--json", json, "output as JSON");
        domain.declare(arguments);
    }
};

void print(const std::string& line) {
    std::printf("%s\n", escapeText(line).c_str());
}

void print(const KRMethodDescription& method) {
    print(method.getSignature());
    if (!method.description.empty()) {
        print("    " + method.description);
    }
    for (const auto& parameter : method.parameters) {
        if (!parameter.name.empty()) {
            print("    " + parameter.name + ": " + parameter.description);
        }
    }
    if (method.resultType != KRArgumentType::Void && !method.result.description.empty()) {
        print("    returns: " + method.result.description);
    }
}

Json toJson(const KRMethodDescription& method) {
    Json parameters = Json::array();
    for (std::size_t i = 0; i < method.parameters.size(); ++i) {
        parameters.push_back({{"name", method.parameters[i].name},
                              {"type", getTypeName(method.argumentTypes[i])},
                              {"description", method.parameters[i].description}});
    }
    return {{"name", method.name},
            {"class", method.className},
            {"description", method.description},
            {"parameters", parameters},
            {"result",
             {{"name", method.result.name},
              {"type", getTypeName(method.resultType)},
              {"description", method.result.description}}},
            {"signature", method.getSignature()}};
}

ExitCode showMethods(const Options& options) {
    const auto broker = options.domain.connect();
    waitForModule(*broker, options.module);
    auto methods = broker->getProxy(options.module)->getMethodList();
    if (!options.all) {
        std::erase_if(methods,
                      [](const KRMethodDescription& method) { return isInternalMethod(method.name); });
    }
    if (options.json) {
        Json list = Json::array();
        for (const KRMethodDescription& method : methods) {
            list.push_back(toJson(method));
        }
        printJson({{"module", options.module}, {"methods", list}});
        return ExitCode::Done;
    }
    for (const KRMethodDescription& method : methods) {
        print(method);
    }
    return ExitCode::Done;
}

const VerbRegistration registration(Verb<Options>{
    .group = "module",
    .name = "info",
    .summary = "Show the methods of a module as it publishes them",
    .example = "  kr module info KRMotion",
    .run = showMethods,
    .complete = completeModule,
});

} // namespace
} // namespace KR::tool::moduleInfo
