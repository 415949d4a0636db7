#pragma once

#include "krplatform/krexport.hpp"

#include <chrono>
#include <string>

namespace KR {

/// Names the calling thread. getThreadName() and log records have the full name; the kernel, and so ps and gdb, keep
/// its first 15 bytes.
KR_EXPORT void setThreadName(const std::string& name);

/// The calling thread's name: the one set, otherwise the kernel's.
KR_EXPORT std::string getThreadName();

/// Blocks the calling thread for `milliseconds`; returns at once if that is not positive.
KR_EXPORT void sleepMilliseconds(int milliseconds);

/// Blocks the calling thread until the steady clock reads `deadline`; returns at once if that has passed.
/// Uses an absolute sleep of the kernel, so that deadlines computed from one another do not drift.
KR_EXPORT void sleepUntil(std::chrono::steady_clock::time_point deadline);

} // namespace KR
