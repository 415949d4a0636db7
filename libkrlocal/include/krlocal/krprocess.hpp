#pragma once

#include <krplatform/krexport.hpp>

#include <sys/types.h>

namespace KR {

/// Whether the process has ended.
KR_EXPORT bool isOver(pid_t process);
/// Whether it is stopped, by a signal or a debugger.
KR_EXPORT bool isStopped(pid_t process);

} // namespace KR
