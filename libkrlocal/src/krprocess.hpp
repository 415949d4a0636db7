#pragma once

#include <sys/types.h>

namespace KR {

/// Whether the process has ended.
bool isOver(pid_t process);
/// Whether it is stopped, by a signal or a debugger.
bool isStopped(pid_t process);

} // namespace KR
