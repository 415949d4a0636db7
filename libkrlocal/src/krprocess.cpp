#include "krlocal/krprocess.hpp"

#include "krdescriptor.hpp"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <string>
#include <string_view>

namespace KR {

namespace {

/// State of a process as shown by ps(1): 'T' stopped, 'Z' zombie; 0 if it does not exist, '?' if that is not known.
char getState(pid_t process) {
    const KRDescriptor file(
        open(("/proc/" + std::to_string(process) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> text{};
    const ssize_t size = file ? read(file.get(), text.data(), text.size()) : -1;
    if (size < 0) {
        return errno == ENOENT || errno == ESRCH ? 0 : '?'; // there may be no descriptor free
    }
    const std::string_view line(text.data(), static_cast<std::size_t>(size));
    const auto afterName = line.rfind(") ");
    return afterName == std::string_view::npos || afterName + 2 >= line.size() ? '?' : line[afterName + 2];
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
