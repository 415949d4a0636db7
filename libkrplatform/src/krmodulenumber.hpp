#pragma once

#include <cstdint>

namespace KR {

/// A number that no known module, local or remote, has or had. Thread-safe.
std::uint32_t drawModuleNumber() noexcept;

} // namespace KR
