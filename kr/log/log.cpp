// kr log

#include "system/domain.hpp"
#include "system/internal.hpp"
#include "system/livenames.hpp"
#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/json.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlogformat.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace KR::tool::log {

namespace {

struct Options {
    Domain domain;
    std::string level;
    std::string category;
    std::vector<std::string> modules;
    bool json = false;

    void declare(Arguments& arguments) {
        arguments.add("LEVEL", level,
                      "error, warning, info or verbose, or several, such as warning,krdds=verbose");
        arguments.add("CATEGORY", category, "category of the log that gets the level (default: all)");
        arguments.add("--module", modules, "module whose process to query; may be repeated (default: all)")
            .valueName("NAME")
            .completes([](const std::string& broker) { return completeModule({}, broker); })
            .repeatable();
        arguments.addFlag("--json", json, "output as a JSON object");
        domain.declare(arguments);
    }
};

std::vector<std::string> chooseModules(KRBroker& broker, const Options& options) {
    for (const std::string& module : options.modules) {
        waitForModule(broker, module);
    }
    std::vector<std::string> modules = options.modules.empty() ? broker.getModuleList() : options.modules;
    std::erase_if(modules, isInternalModule);
    return modules;
}

// All modules of a process share one log.
ExitCode setLevels(const Options& options) {
    const std::string levels =
        options.category.empty() ? options.level : options.category + "=" + options.level;
    const auto broker = options.domain.connect();
    ExitCode code = ExitCode::Done;
    Json answers = Json::object();
    for (const std::string& module : chooseModules(*broker, options)) {
        const auto proxy = broker->getProxy(module);
        try {
            if (!levels.empty()) {
                proxy->call("setLogLevels", levels);
            }
            answers[module] = proxy->call<std::string>("getLogLevels");
        } catch (const KRError& error) {
            printError(describe(error));
            code = ExitCode::Failed;
        }
    }
    if (options.json) {
        printJson(answers);
        return code;
    }
    for (const auto& [module, answer] : answers.items()) {
        std::printf("%-20s %s\n", escapeText(module).c_str(),
                    escapeText(answer.get_ref<const std::string&>()).c_str());
    }
    return code;
}

const GroupRegistration group("log", "Show what modules log, or set it while they run; watch their logs");

const VerbRegistration registration(Verb<Options>{
    .group = "log",
    .name = "",
    .summary = "Show what modules log, or set it while they run",
    .example = "  kr log\n"
               "  kr log verbose --module KRMotion\n"
               "  kr log verbose krdds --module KRMotion\n"
               "  kr log info                               forgets the levels of categories\n"
               "All modules of a process share one log.",
    .run = setLevels,
    .complete =
        [](const std::vector<std::string>& words, const std::string&) {
            return words.empty() ? std::vector<std::string>(kLogLevelNames.begin(), kLogLevelNames.end())
                                 : std::vector<std::string>{};
        },
});

} // namespace
} // namespace KR::tool::log
