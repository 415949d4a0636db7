#pragma once

#include "krvision/krvideo.hpp"

#include <cstddef>
#include <cstdint>

/// Layout of an oxv file (docs/oxv.md).
namespace KR::oxv {

inline constexpr std::uint32_t kVersion1 = 0x4F585631; ///< "1VXO"
inline constexpr std::uint32_t kVersion0 = 0x4F585630; ///< "0VXO"; its chunks hold no angles

/// What the file begins with. The stream headers follow.
struct FileHeader {
    std::uint32_t version;         ///< kVersion1 or kVersion0
    std::uint32_t extraHeaderSize; ///< bytes between the stream headers and the first frame
    std::uint32_t frames;          ///< kNeverClosed until the recording is closed
    std::uint32_t streams;         ///< 0 means 1
};
static_assert(sizeof(FileHeader) == 16 && sizeof(streamHeader) == 16, "written to the file as they are");

inline constexpr std::size_t kAnglesOffset = 9; ///< in a chunk, bytes

/// Readers compute offsets in 32 bits: chunks that begin beyond are lost to them.
inline constexpr std::uint64_t kAddressableSize = std::uint64_t{1} << 32;

} // namespace KR::oxv
