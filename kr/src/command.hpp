#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace KR::tool {

/// What the program tells the shell.
enum class ExitCode {
    Done = 0,
    Failed = 1,
    WrongUsage = 2,
    DataLost = 3, ///< done, but some of the data could not be kept
};

/// One verb of the command line, `kr GROUP NAME`, or `kr NAME` if the group is "".
///
/// Its results go to standard output, and everything else to standard error. Where it lists something, it takes
/// `--json` too (json.hpp); where it works through frames, it shows a Progress (progress.hpp).
struct Command {
    std::string group;
    std::string name;
    std::string summary; ///< one line, without a full stop
    std::string example; ///< a command line or some, for the end of its --help

    /// Adds the options of the verb to its part of the command line. Called once.
    /// \return what the verb does, called after the options have been read. Of what that throws, a KRError is
    /// shown with its description and another std::exception with its what(); the program has failed then, or been
    /// used wrongly if it is a UsageError
    std::function<std::function<ExitCode()>(CLI::App&)> declare;

    /// What may stand in the place of the verb's next argument, given those before it and the address of the
    /// broker; for shells that complete a line. May be empty.
    std::function<std::vector<std::string>(const std::vector<std::string>&, const std::string&)> complete =
        {};
};

/// Makes a verb part of the program: an object of this class in the source file of the verb.
struct CommandRegistration {
    explicit CommandRegistration(Command command);
};

/// Says what the verbs of a group are about: one object, in the source file of any of them.
struct GroupRegistration {
    GroupRegistration(std::string group, std::string summary);
};

/// The options contradict each other, or one of them is wrong in a way that CLI11 cannot see.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Shows a line on standard error, with the name of the program before it.
void complain(const std::string& text);

/// What the word after `words`, which begins with `prefix`, may be: groups, verbs, options, and what the verb itself
/// offers. \param words  of the command line, without the program. Throws nothing: what fails has no completions.
std::vector<std::string> completeCommandLine(const std::vector<std::string>& words,
                                             const std::string& prefix);

/// Reads the command line and does what it says. Throws nothing.
ExitCode runCommandLine(int argc, const char* const* argv);

} // namespace KR::tool
