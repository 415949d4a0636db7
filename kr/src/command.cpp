#include "command.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

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
        CLI::App* verbs = &app;
        if (!entry.first.empty()) {
            verbs = app.add_subcommand(entry.first, group.summary);
            verbs->require_subcommand(1);
            verbs->footer("kr " + entry.first + " VERB --help shows the options of a verb, and an example.");
        }
        for (const auto& named : group.commands) {
            const Command& command = named.second;
            CLI::App* verb = verbs->add_subcommand(command.name, command.summary);
            verb->footer("Example:\n" + command.example);
            verb->callback([&chosen, act = command.declare(*verb)] { chosen = act; });
        }
    }
}

ExitCode run(const std::function<ExitCode()>& act) {
    setLogLevel(KRLogLevel::Warning); // who runs modules wants more
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

// What is wrong with a command line. CLI11 complains about what is missing, also where there is something that it does
// not know in that place.
std::string explain(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining(true);
    if (dynamic_cast<const CLI::RequiredError*>(&error) == nullptr || unknown.empty()) {
        return error.what();
    }
    std::string command = app.get_name();
    for (const CLI::App* at = &app; !at->get_subcommands().empty();) {
        at = at->get_subcommands().front();
        command += " " + at->get_name();
    }
    const bool isOption = unknown.front().starts_with("-");
    return command + " has no " + (isOption ? "option " : "verb ") + "\"" + unknown.front() + "\"";
}

// CLI11 ends in an exception also where nothing is wrong: for --help.
ExitCode tell(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        app.exit(error);
        return ExitCode::Done;
    }
    complain(explain(app, error));
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

std::vector<std::string> completeCommandLine(const std::vector<std::string>& words,
                                             const std::string& prefix) {
    CLI::App app;
    std::function<ExitCode()> chosen;
    declareAll(app, chosen);
    // Which verb it is, and what stands behind it.
    const CLI::App* at = &app;
    std::string group;
    const Command* command = nullptr;
    std::vector<std::string> arguments;
    std::string broker = "dds:";
    const CLI::Option* wanted = nullptr; // the option whose value comes next
    for (const std::string& word : words) {
        if (wanted != nullptr) {
            if (wanted->check_lname("broker")) {
                broker = word;
            }
            wanted = nullptr;
        } else if (word.starts_with("-")) {
            const auto equals = word.find('=');
            const CLI::Option* option = at->get_option_no_throw(word.substr(0, equals));
            wanted = option != nullptr && option->get_expected_max() > 0 && equals == std::string::npos
                         ? option
                         : nullptr;
            if (option != nullptr && equals != std::string::npos && option->check_lname("broker")) {
                broker = word.substr(equals + 1);
            }
        } else if (command != nullptr) {
            arguments.push_back(word);
        } else {
            const auto named =
                at->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
            if (named.empty()) {
                return {};
            }
            const auto& verbs = getGroups()[group].commands;
            const auto found = verbs.find(word);
            if (found != verbs.end()) {
                command = &found->second;
            } else {
                group = word;
            }
            at = named.front();
        }
    }
    std::vector<std::string> candidates;
    if (wanted != nullptr) {
        return candidates; // a file, or something that nobody can know
    }
    if (prefix.starts_with("-")) {
        for (const CLI::Option* option : at->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                candidates.push_back("--" + name);
            }
        }
    } else if (command == nullptr) {
        for (const CLI::App* next : at->get_subcommands([](const CLI::App*) { return true; })) {
            if (!next->get_group().empty()) { // the hidden ones have none
                candidates.push_back(next->get_name());
            }
        }
    } else if (command->complete) {
        try {
            candidates = command->complete(arguments, broker);
        } catch (const std::exception&) { // nobody there who could tell
        }
    }
    std::erase_if(candidates, [&](const std::string& candidate) { return !candidate.starts_with(prefix); });
    return candidates;
}

ExitCode runCommandLine(int argc, const char* const* argv) {
    CLI::App app(
        "Perception modules of robots: runs them, looks into them, and works on their images and recordings",
        "kr");
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
        const int reason = errno; // 0: an earlier write failed
        complain(std::string("standard output cannot be written") +
                 (reason != 0 ? std::string(": ") + std::strerror(reason) : ""));
        return ExitCode::Failed;
    }
    return code;
}

} // namespace KR::tool
