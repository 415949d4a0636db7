#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace KR::tool {

/// The names in the project of a module.
struct ProjectNames {
    std::string name;      ///< of files and targets: "red-ball", in Python "red_ball"
    std::string className; ///< "RedBall"
    std::string module;    ///< as kr run calls it: the class without "Extractor"
};

/// \throws std::invalid_argument  a name that files, targets or classes cannot have; says what would be right
ProjectNames makeProjectNames(const std::string& name, bool isPython);

/// Writes the templates of these kinds ("extractor", "cpp") into a new folder, all or nothing.
/// \throws std::runtime_error  the folder exists, or cannot be written
void writeProject(const std::filesystem::path& folder, const std::vector<std::string>& kinds,
                  const ProjectNames& names);

} // namespace KR::tool
