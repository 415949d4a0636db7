#pragma once

#include "tool/arguments.hpp"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace KR::tool {

/// Exit code of the program.
enum class ExitCode {
    Done = 0,
    Failed = 1,
    WrongUsage = 2,
    DataLost = 3, ///< done, but some of the data could not be kept
};

/// Returns what may stand in the place of a verb's next argument, for shells that complete a line.
/// \param arguments  of the verb, those before it
/// \param broker     address of the broker
using Completer = std::function<std::vector<std::string>(const std::vector<std::string>& arguments,
                                                         const std::string& broker)>;

/// One verb of the command line, `kr GROUP NAME`, or `kr NAME` if the group is "".
///
/// Options is a default-constructible type with `void declare(Arguments&)`, which adds its members to the command line
/// as options of the verb. Objects of it stay where they are.
///
/// Results go to standard output, everything else to standard error. A verb that lists something takes `--json` too
/// (tool/json.hpp); one that works through frames shows a Progress (tool/progress.hpp); one that runs until it is
/// interrupted writes through an Output (tool/output.hpp).
template <class Options>
struct Verb {
    std::string group;
    std::string name; ///< "": what the group does without a verb; its arguments are not to be names of verbs
    std::string summary; ///< one line, imperative, without a full stop
    std::string example; ///< one command line or more, for the end of its --help
    /// Does the work, after the options have been read. A KRError is reported by describe(), another
    /// std::exception by its what(); the exit code is then Failed, or WrongUsage for a UsageError.
    ExitCode (*run)(const Options&);
    Completer complete = {}; ///< may be empty
};

/// A verb whose options have been forgotten, as the command line sees it.
struct Command {
    std::string group;
    std::string name;
    std::string summary;
    std::string example;
    /// Adds the options to the verb's part of the command line. \return what the verb does
    std::function<std::function<ExitCode()>(Arguments&)> declare;
    Completer complete;
};

/// Makes a verb part of the program: an object of this class in the source file of the verb.
class VerbRegistration {
public:
    template <class Options>
    explicit VerbRegistration(Verb<Options> verb) {
        const auto declare = [run = verb.run](Arguments& arguments) -> std::function<ExitCode()> {
            const auto options = std::make_shared<Options>();
            options->declare(arguments);
            return [options, run] { return run(*options); };
        };
        add({std::move(verb.group), std::move(verb.name), std::move(verb.summary), std::move(verb.example),
             declare, std::move(verb.complete)});
    }

private:
    static void add(Command command);
};

/// Describes the verbs of a group: one object, in the source file of any of them.
struct GroupRegistration {
    GroupRegistration(std::string group, std::string summary);
};

/// The options contradict each other, or one has a value that CLI11 cannot check.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Log options of the command line; "" if not given.
struct LogOptions {
    std::string levels;
    std::string format;
};
const LogOptions& getLogOptions();

/// Writes a line to standard error, with the name of the program in front and control characters escaped, or as a line of
/// the log where --log-format says so. Gives up if standard error blocks for a second. Thread-safe.
void printError(const std::string& text);
/// The same for messages that are not errors.
void printNotice(const std::string& text);

/// Completes the word after `words`, which begins with `prefix`: groups, verbs, options, and what the verb itself
/// offers. Throws nothing: on errors there are no completions.
/// \param words  of the command line, without the program
std::vector<std::string> completeCommandLine(const std::vector<std::string>& words,
                                             const std::string& prefix);

/// Parses the command line and runs the verb that it names. Throws nothing.
ExitCode runCommandLine(int argc, const char* const* argv);

} // namespace KR::tool
