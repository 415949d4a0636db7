#include "command.hpp"

#include <krplatform/krerror.hpp>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <new>
#include <optional>
#include <utility>

namespace KR::tool {

namespace {

struct Group {
    std::string summary;
    std::map<std::string, Command> commands;
};

// Sorted, because the order in which source files register is nobody's choice.
std::map<std::string, Group>& getGroups() {
    static std::map<std::string, Group> groups;
    return groups;
}

constexpr const char* kConventions = "Results go to standard output, everything else to standard error.\n"
                                     "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 done but data was lost.";

void declareAll(CLI::App& app, std::function<ExitCode()>& chosen) {
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Shows this text");
    app.footer(kConventions);
    for (const auto& entry : getGroups()) {
        const Group& group = entry.second;
        CLI::App* verbs = app.add_subcommand(entry.first, group.summary);
        verbs->require_subcommand(1);
        verbs->footer("kr " + entry.first + " VERB --help shows the options of a verb, and an example.");
        for (const auto& named : group.commands) {
            const Command& command = named.second;
            CLI::App* verb = verbs->add_subcommand(command.name, command.summary);
            verb->footer("Example:\n" + command.example);
            verb->callback([&chosen, act = command.declare(*verb)] { chosen = act; });
        }
    }
}

ExitCode run(const std::function<ExitCode()>& act) {
    try {
        return act();
    } catch (const UsageError& error) {
        complain(error.what());
        return ExitCode::WrongUsage;
    } catch (const KRError& error) {
        complain(error.getDescription());
    } catch (const std::bad_alloc&) {
        complain("there is not enough memory for that");
    } catch (const std::exception& error) {
        complain(error.what());
    }
    return ExitCode::Failed;
}

// CLI11 ends in an exception also where nothing is wrong: for --help.
ExitCode tell(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        app.exit(error);
        return ExitCode::Done;
    }
    complain(error.what());
    std::fprintf(stderr, "See kr --help, or --help behind any verb.\n");
    return ExitCode::WrongUsage;
}

} // namespace

CommandRegistration::CommandRegistration(Command command) {
    Group& group = getGroups()[command.group];
    std::string name = command.name;
    group.commands.emplace(std::move(name), std::move(command));
}

GroupRegistration::GroupRegistration(std::string group, std::string summary) {
    getGroups()[std::move(group)].summary = std::move(summary);
}

void complain(const std::string& text) {
    std::fflush(stdout); // in the order in which things happened
    std::fprintf(stderr, "kr: %s\n", text.c_str());
}

ExitCode runCommandLine(int argc, const char* const* argv) {
    CLI::App app("Images and recordings of robots", "kr");
    std::function<ExitCode()> chosen;
    ExitCode code;
    try {
        declareAll(app, chosen);
        app.parse(argc, argv);
        code = run(chosen);
    } catch (const CLI::ParseError& error) {
        code = tell(app, error);
    } catch (const std::exception& error) {
        complain(error.what());
        code = ExitCode::Failed;
    }
    errno = 0;
    const bool isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!isWritten && code != ExitCode::WrongUsage) {
        complain(std::string("standard output cannot be written: ") + std::strerror(errno));
        return ExitCode::Failed;
    }
    return code;
}

} // namespace KR::tool
