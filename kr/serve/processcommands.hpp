#pragma once

#include "serve/robot.hpp"

#include <string>
#include <vector>

namespace KR::tool {

/// The command that hosts a module in a process beside this one, which logs as this one does.
/// \param broker  address of this process's broker
std::vector<std::string> makeRunCommand(const RobotModule& module, const std::string& broker);

/// The command that records. Conversions of strftime(3) in the name of the file are of this moment.
std::vector<std::string> makeRecordCommand(const RobotRecording& recording, const std::string& broker);

/// The address of a broker like this one, in another process: it does not run the memory.
std::string withoutMemory(const std::string& broker);

} // namespace KR::tool
