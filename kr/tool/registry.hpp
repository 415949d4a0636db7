#pragma once

#include "tool/command.hpp"

#include <functional>
#include <map>
#include <string>

namespace KR::tool {

/// The verbs of a group.
struct Group {
    std::string summary;
    std::map<std::string, Command> commands;
};

/// All groups by name; "" holds the verbs without one. Sorted, because source files register in no particular order.
std::map<std::string, Group>& getGroups();

/// Adds all groups and verbs to a command line; parsing it sets `chosen` to what the verb does.
/// \param completers  receives those of the options
void declareAll(CLI::App& app, std::function<ExitCode()>& chosen, ValueCompleters& completers);

} // namespace KR::tool
