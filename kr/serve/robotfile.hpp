#pragma once

#include "serve/robot.hpp"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace KR::tool {

/// A problem in a file, and its position.
struct RobotProblem {
    Place place;
    std::string text;
};

/// "robot.yaml:3:5: TEXT" for each problem, one per line, in the order of the file.
std::string formatProblems(const std::string& path, std::vector<RobotProblem> problems);

/// Reads a system from a YAML file. Relative paths in it are relative to its folder; those of the result are absolute.
/// \param problems  receives all problems visible in the text alone; the result is only usable if there are none
/// \throws std::runtime_error it cannot be read; it is larger than 1 MiB
Robot readRobotFile(const std::string& path, std::vector<RobotProblem>& problems);

/// The source of a camera with an absolute path, if it names a file. \param folder  that a relative path begins at
std::string resolveSource(const std::filesystem::path& folder, const std::string& source);

/// The keys of a section of the file: "" for the whole, "log", "camera", "module", "subscription", "record"
/// or "web".
const std::vector<std::string>& getRobotKeys(std::string_view section);

} // namespace KR::tool
