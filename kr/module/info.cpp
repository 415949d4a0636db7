// kr module info

#include "command.hpp"
#include "domain.hpp"
#include "json.hpp"
#include "livenames.hpp"

#include <CLI/CLI.hpp>

#include <krplatform/krmodule.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace KR::tool {

namespace {

struct Options {
    Domain domain;
    std::string module;
    bool json = false;
};

void show(const KRMethodDescription& method) {
    std::printf("%s\n", method.getSignature().c_str());
    if (!method.description.empty()) {
        std::printf("    %s\n", method.description.c_str());
    }
    for (const auto& parameter : method.parameters) {
        if (!parameter.name.empty()) {
            std::printf("    %s: %s\n", parameter.name.c_str(), parameter.description.c_str());
        }
    }
    if (method.resultType != KRArgumentType::Void && !method.result.description.empty()) {
        std::printf("    returns: %s\n", method.result.description.c_str());
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

ExitCode act(const Options& options) {
    const auto broker = options.domain.connect();
    waitForModule(*broker, options.module);
    const auto methods = broker->getProxy(options.module)->getMethodList();
    if (options.json) {
        Json list = Json::array();
        for (const KRMethodDescription& method : methods) {
            list.push_back(toJson(method));
        }
        printJson({{"module", options.module}, {"methods", list}});
        return ExitCode::Done;
    }
    for (const KRMethodDescription& method : methods) {
        show(method);
    }
    return ExitCode::Done;
}

const CommandRegistration registration({
    .group = "module",
    .name = "info",
    .summary = "Shows the methods of a module as it publishes them",
    .example = "  kr module info KRMotion",
    .declare =
        [](CLI::App& verb) {
            auto options = std::make_shared<Options>();
            verb.add_option("MODULE", options->module, "Name of the module")->required();
            verb.add_flag("--json", options->json, "Shows them as JSON");
            options->domain.addOptions(verb);
            return [options] { return act(*options); };
        },
    .complete = completeModule,
});

} // namespace
} // namespace KR::tool
