#pragma once

#include "serve/robot.hpp"

#include <string>
#include <vector>

namespace KR::tool {

/// The command that hosts a module in a child process, which logs like this one.
/// \param broker  address of this process's broker
std::vector<std::string> makeRunCommand(const RobotModule& module, const std::string& broker);

/// The command that records. strftime(3) conversions in the file name use the current time.
std::vector<std::string> makeRecordCommand(const RobotRecording& recording, const std::string& broker);

/// The address for a broker in a child process: this one without the memory.
std::string withoutMemory(const std::string& broker);

} // namespace KR::tool
