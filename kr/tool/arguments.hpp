#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace KR::tool {

/// One argument of a verb. Its operations restrict what it accepts, and return it.
class Argument {
public:
    explicit Argument(CLI::Option& option) : option_(&option) {}

    Argument& required();
    /// A whole number from `minimum` to `maximum`. Every argument that is an integer needs it: CLI11 alone reads "" as 0,
    /// 010 as 8, and -1 as a very large number if the type is unsigned.
    Argument& wholeNumber(std::int64_t minimum, std::int64_t maximum = std::numeric_limits<int>::max());
    /// A number from `minimum` to `maximum`, not NaN.
    Argument& realNumber(double minimum, double maximum);
    Argument& oneOf(const std::vector<std::string>& values);
    /// May be given several times, with one value each.
    Argument& repeatable();
    /// Cannot be given together with another option.
    Argument& excludes(const std::string& name);
    /// Shows the initial value in the help.
    Argument& showDefault();
    /// What the help calls its value.
    Argument& valueName(const std::string& name);

private:
    CLI::Option* option_;
};

/// The command line of a verb, to which its options are added. This hides CLI11, which takes seconds to compile.
class Arguments {
public:
    explicit Arguments(CLI::App& verb) : verb_(verb) {}

    /// \name Adds an argument ("FILE") or an option with a value ("--frame")
    /// The variable keeps its value unless it is given.
    ///@{
    Argument add(const std::string& name, std::string& value, const std::string& help);
    Argument add(const std::string& name, int& value, const std::string& help);
    Argument add(const std::string& name, std::uint64_t& value, const std::string& help);
    Argument add(const std::string& name, std::optional<std::uint64_t>& value, const std::string& help);
    Argument add(const std::string& name, double& value, const std::string& help);
    Argument add(const std::string& name, std::vector<std::string>& values, const std::string& help);
    ///@}
    void addFlag(const std::string& name, bool& value, const std::string& help);

    /// Accepts further arguments. \return gives them once the command line has been read
    std::function<std::vector<std::string>()> acceptMore();
    /// Leaves the verb out of lists of verbs.
    void hide();

private:
    CLI::App& verb_;
};

} // namespace KR::tool
