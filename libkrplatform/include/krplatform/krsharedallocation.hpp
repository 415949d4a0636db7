#pragma once

#include "krplatform/krexport.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstddef>

namespace KR {

/// Memory as from KRBinary::allocate(), but only memory that other processes of this machine can map. Null if there is none at
/// the moment, for callers with their own buffers to fall back on. Thread-safe.
KR_EXPORT boost::shared_ptr<unsigned char[]> allocateShared(std::size_t size) noexcept;

} // namespace KR
