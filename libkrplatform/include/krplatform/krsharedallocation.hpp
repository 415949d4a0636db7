#pragma once

#include "krplatform/krexport.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstddef>

namespace KR {

/// What KRBinary::allocate() takes where other processes of this machine can be given the bytes without a copy. Null if there
/// is no such memory at the moment: for those who have memory to use again then. Thread-safe.
KR_EXPORT boost::shared_ptr<unsigned char[]> allocateShared(std::size_t size) noexcept;

} // namespace KR
