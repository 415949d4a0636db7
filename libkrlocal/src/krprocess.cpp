#include "krprocess.hpp"

#include <fstream>
#include <string>

namespace KR {

namespace {

/// State of a process as shown by ps(1): 'T' stopped, 'Z' zombie; 0 if it does not exist.
char getState(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    if (!std::getline(file, line)) {
        return 0;
    }
    const auto afterName = line.rfind(") ");
    return afterName == std::string::npos || afterName + 2 >= line.size() ? '?' : line[afterName + 2];
}

} // namespace

bool isOver(pid_t process) {
    const char state = getState(process);
    return state == 0 || state == 'Z' || state == 'X';
}

bool isStopped(pid_t process) {
    const char state = getState(process);
    return state == 'T' || state == 't';
}

} // namespace KR
