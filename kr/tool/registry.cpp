#include "tool/registry.hpp"

#include <CLI/CLI.hpp>

#include <utility>

namespace KR::tool {

namespace {

constexpr const char* kConventions = "Results go to standard output, everything else to standard error.\n"
                                     "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 done but data was lost.";

} // namespace

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

void declareAll(CLI::App& app, std::function<ExitCode()>& chosen) {
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Show this text");
    app.footer(kConventions);
    for (const auto& [name, group] : getGroups()) {
        CLI::App* verbs = &app;
        if (!name.empty()) {
            verbs = app.add_subcommand(name, group.summary);
            verbs->require_subcommand(1);
            verbs->footer("kr " + name + " VERB --help shows the options of a verb, and an example.");
        }
        for (const auto& [verbName, command] : group.commands) {
            CLI::App* verb = verbs->add_subcommand(verbName, command.summary);
            verb->footer("Example:\n" + command.example);
            Arguments arguments(*verb);
            verb->callback([&chosen, run = command.declare(arguments)] { chosen = run; });
        }
    }
}

} // namespace KR::tool
