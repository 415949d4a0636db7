#include "tool/command.hpp"

#include "tool/errortext.hpp"
#include "tool/registry.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlogformat.hpp>
#include <krplatform/krtext.hpp>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include <poll.h>
#include <unistd.h>

namespace KR::tool {

namespace {

ExitCode run(const std::function<ExitCode()>& act) {
    try {
        return act();
    } catch (const UsageError& error) {
        printError(error.what());
        return ExitCode::WrongUsage;
    } catch (const KRError& error) {
        printError(describe(error));
    } catch (const std::bad_alloc&) {
        printError("out of memory");
    } catch (const std::exception& error) {
        printError(error.what());
    }
    return ExitCode::Failed;
}

std::string listVerbs(const CLI::App& app) {
    std::string verbs;
    for (const CLI::App* verb :
         app.get_subcommands([](const CLI::App* each) { return !each->get_group().empty(); })) {
        verbs += (verbs.empty() ? "" : ", ") + verb->get_name();
    }
    return verbs;
}

// CLI11 reports a missing argument even if an unknown one was given instead.
std::string explain(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App* verb = &app; // the innermost
    std::string command = app.get_name();
    while (!verb->get_subcommands().empty()) {
        verb = verb->get_subcommands().front();
        command += " " + verb->get_name();
    }
    const std::vector<std::string> unknown = app.remaining(true);
    const bool isOption = !unknown.empty() && unknown.front().starts_with("-");
    const bool isMissing = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
    const bool isSurplus = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
    if (isMissing && unknown.empty() && verb->get_require_subcommand_min() > 0) {
        return command + " needs a verb: " + listVerbs(*verb);
    }
    if ((isMissing && !unknown.empty()) || (isSurplus && isOption)) {
        return command + " has no " + (isOption ? "option " : "verb ") + "\"" + unknown.front() + "\"";
    }
    return error.what();
}

// CLI11 throws for --help, too.
ExitCode handleParseError(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
        app.exit(error);
        return ExitCode::Done;
    }
    printError(explain(app, error));
    std::fprintf(stderr, "See kr --help, or --help after any verb.\n");
    return ExitCode::WrongUsage;
}

// Lines of the log, or of a terminal: several lines stay several lines, and everything else that controls a terminal is
// escaped.
std::string formatLines(const std::string& text, KRLogLevel level) {
    const KRLogFormat format = getLogFormat();
    std::string lines;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string line = text.substr(start, end - start);
        if (format == KRLogFormat::Text) {
            lines += (start == 0 ? "kr: " : "") + escapeText(line) + "\n";
        } else {
            lines +=
                formatLogRecord(
                    {level, "kr", line, KRSourceLocation::current(), {}, std::chrono::system_clock::now()},
                    format) +
                "\n";
        }
        start = end + 1;
    }
    return lines;
}

void print(const std::string& text, KRLogLevel level) {
    std::fflush(stdout); // keeps the order of events on a terminal
    const std::string lines = formatLines(text, level);
    constexpr int kPatience_ms = 1000;
    constexpr std::size_t kPart =
        512; // POSIX: a pipe that is ready for writing takes as much without blocking
    for (std::size_t start = 0; start < lines.size(); start += kPart) {
        pollfd err{STDERR_FILENO, POLLOUT, 0};
        if (::poll(&err, 1, kPatience_ms) == 0) {
            return;
        }
        std::fwrite(lines.data() + start, 1, std::min(kPart, lines.size() - start), stderr);
    }
}

} // namespace

void printError(const std::string& text) {
    print(text, KRLogLevel::Error);
}

void printNotice(const std::string& text) {
    print(text, KRLogLevel::Info);
}

ExitCode runCommandLine(int argc, const char* const* argv) {
    CLI::App app("", "kr");
    std::function<ExitCode()> chosen;
    ExitCode code;
    try {
        ValueCompleters completers;
        declareAll(app, chosen, completers);
        app.parse(argc, argv);
        code = run(chosen);
    } catch (const CLI::ParseError& error) {
        code = handleParseError(app, error);
    } catch (const std::exception& error) {
        printError(error.what());
        code = ExitCode::Failed;
    }
    errno = 0;
    const bool isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!isWritten && code != ExitCode::WrongUsage) {
        const int reason = errno; // 0: an earlier write failed
        printError(std::string("standard output cannot be written") +
                   (reason != 0 ? std::string(": ") + std::strerror(reason) : ""));
        return ExitCode::Failed;
    }
    return code;
}

} // namespace KR::tool
