#include "tool/registry.hpp"

#include <krplatform/krlogformat.hpp>

#include <CLI/CLI.hpp>

#include <memory>
#include <stdexcept>
#include <utility>

namespace KR::tool {

namespace {

constexpr const char* kConventions =
    "kr GROUP --help lists the verbs of a group, kr GROUP VERB --help its options and an example.\n"
    "Results go to standard output, everything else to standard error.\n"
    "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 done but data was lost.";

LogOptions logOptions; // of the verb that runs

void setUpLog() {
    setLogLevel(KRLogLevel::Warning); // verbs that host modules lower it
    if (!logOptions.format.empty()) {
        setLogFormat(parseLogFormat(logOptions.format));
    }
    if (logOptions.levels.empty()) {
        return;
    }
    try {
        setLogLevels(logOptions.levels);
    } catch (const std::invalid_argument& error) {
        throw UsageError(std::string("--log-level: ") + error.what());
    }
}

} // namespace

const LogOptions& getLogOptions() {
    return logOptions;
}

std::map<std::string, Group>& getGroups() {
    static std::map<std::string, Group> groups;
    return groups;
}

void VerbRegistration::add(Command command) {
    Group& group = getGroups()[command.group];
    std::string name = command.name;
    group.commands.emplace(std::move(name), std::move(command));
}

GroupRegistration::GroupRegistration(std::string group, std::string summary) {
    getGroups()[std::move(group)].summary = std::move(summary);
}

void declareAll(CLI::App& app, std::function<ExitCode()>& chosen, ValueCompleters& completers) {
    app.description(
        "Run perception modules of robots, inspect them, and work on their images and recordings");
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "this text");
    app.set_version_flag("--version", "kr " KR_VERSION, "version of KRVision");
    app.footer(kConventions);
    for (const auto& [name, group] : getGroups()) {
        CLI::App* verbs = &app;
        if (!name.empty()) {
            verbs = app.add_subcommand(name, group.summary);
            verbs->require_subcommand(1);
            verbs->footer("kr " + name + " VERB --help shows the options of a verb, and an example.");
        }
        if (group.commands.contains("")) {
            verbs->require_subcommand(0, 1);
        }
        for (const auto& [verbName, command] : group.commands) {
            CLI::App* verb = verbName.empty() ? verbs : verbs->add_subcommand(verbName, command.summary);
            verb->footer("Example:\n" + command.example);
            Arguments arguments(*verb, completers);
            const auto run = command.declare(arguments);
            arguments
                .add("--log-level", logOptions.levels,
                     "what is logged: error, warning, info or verbose, also by category: "
                     "warning,krdds=verbose")
                .valueName("LEVELS")
                .completes({kLogLevelNames.begin(), kLogLevelNames.end()});
            arguments.add("--log-format", logOptions.format, "form of the log: text, json or journal")
                .oneOf({"text", "json", "journal"});
            verb->callback([&chosen, run, verb] {
                if (!verb->get_subcommands().empty()) {
                    return; // that one is meant
                }
                chosen = [run] {
                    setUpLog();
                    return run();
                };
            });
        }
    }
}

} // namespace KR::tool
