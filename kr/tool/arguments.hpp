#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace KR::tool {

/// Returns what may be the value of an option, for shells that complete a line. \param broker  address of the broker
using ValueCompleter = std::function<std::vector<std::string>(const std::string& broker)>;
using ValueCompleters = std::map<const CLI::Option*, ValueCompleter>;

/// One argument of a verb. Its operations restrict what it accepts, and return it.
class Argument {
public:
    Argument(CLI::Option& option, ValueCompleters& completers) : option_(&option), completers_(&completers) {}

    Argument& required();
    /// A whole number from `minimum` to `maximum`. Every argument that is an integer needs it: CLI11 alone reads "" as 0,
    /// 010 as 8, and -1 as a very large number if the type is unsigned.
    Argument& wholeNumber(std::int64_t minimum, std::int64_t maximum = std::numeric_limits<int>::max());
    /// A number from `minimum` to `maximum`, not NaN.
    Argument& realNumber(double minimum, double maximum);
    Argument& oneOf(const std::vector<std::string>& values);
    /// Values that a shell offers; others are accepted too. oneOf() does the same for its values.
    Argument& completes(const std::vector<std::string>& values);
    Argument& completes(ValueCompleter completer);
    /// May be given several times, with one value each.
    Argument& repeatable();
    /// Without a value it has this one.
    Argument& optionalValue(const std::string& value);
    /// Cannot be given together with another option.
    Argument& excludes(const std::string& name);
    /// Shows the initial value in the help.
    Argument& showDefault();
    /// What the help calls its value.
    Argument& valueName(const std::string& name);

private:
    CLI::Option* option_;
    ValueCompleters* completers_;
};

/// The command line of a verb, to which its options are added. This hides CLI11, which takes seconds to compile.
class Arguments {
public:
    /// \param completers  receives those of the options
    Arguments(CLI::App& verb, ValueCompleters& completers) : verb_(verb), completers_(completers) {}

    /// \name Adds an argument ("FILE") or an option with a value ("--frame")
    /// The variable keeps its value unless it is given.
    ///@{
    Argument add(const std::string& name, std::string& value, const std::string& help);
    Argument add(const std::string& name, int& value, const std::string& help);
    Argument add(const std::string& name, std::uint64_t& value, const std::string& help);
    Argument add(const std::string& name, std::optional<std::uint64_t>& value, const std::string& help);
    Argument add(const std::string& name, double& value, const std::string& help);
    Argument add(const std::string& name, std::vector<std::string>& values, const std::string& help);
    /// May be given several times, each time with several values.
    Argument add(const std::string& name, std::vector<std::vector<std::string>>& values,
                 const std::string& help);
    ///@}
    void addFlag(const std::string& name, bool& value, const std::string& help);

    /// Accepts further arguments. \return gives them once the command line has been read
    std::function<std::vector<std::string>()> acceptMore();
    /// Leaves the verb out of lists of verbs.
    void hide();

private:
    template <class Value>
    Argument addTo(const std::string& name, Value& value, const std::string& help);

    CLI::App& verb_;
    ValueCompleters& completers_;
};

} // namespace KR::tool
