#pragma once

#include "serve/robotfile.hpp"

#include <vector>

namespace KR::tool {

/// Completes and checks what cannot be checked from the text alone: sources and controls of cameras, libraries of modules
/// and their names. Loads the libraries of modules in this process; opens no camera.
/// \param problems  receives all problems
void checkRobot(Robot& robot, std::vector<RobotProblem>& problems);

} // namespace KR::tool
