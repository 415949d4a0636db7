#pragma once

#include "serve/robotfile.hpp"

#include <vector>

namespace KR::tool {

/// Completes and checks what the text of a file does not show: sources and controls of cameras, libraries of modules and
/// their names. Loads the libraries of modules in this process; opens no camera.
/// \param problems  receives all that is wrong
void checkRobot(Robot& robot, std::vector<RobotProblem>& problems);

} // namespace KR::tool
