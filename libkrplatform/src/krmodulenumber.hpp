#pragma once

#include <cstdint>

namespace KR {

/// A number that no module of this process, nor one that it knows of elsewhere, has or had. Thread-safe.
std::uint32_t drawModuleNumber() noexcept;

} // namespace KR
