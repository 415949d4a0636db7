#pragma once

#include "krplatform/krexport.hpp"

#include <chrono>
#include <string>

namespace KR {

/// Names the calling thread. The full name reads back with getThreadName() and stands in log records; the
/// kernel, and so ps and gdb, keep its first 15 bytes.
KR_EXPORT void setThreadName(const std::string& name);

/// The calling thread's name: as set, or what the kernel calls it if nobody set one.
KR_EXPORT std::string getThreadName();

/// Lets the calling thread sleep for `milliseconds`; returns at once if that is not positive.
KR_EXPORT void sleepMilliseconds(int milliseconds);

/// Lets the calling thread sleep until the steady clock reads `deadline`; returns at once if that has passed.
/// An absolute sleep of the kernel: deadlines that are computed from one another do not drift.
KR_EXPORT void sleepUntil(std::chrono::steady_clock::time_point deadline);

} // namespace KR
