#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace KR {

/// Takes the next field of a header, in native byte order, and moves on behind it. No alignment is needed.
template <class T>
T takeField(const unsigned char*& at) noexcept {
    T field;
    std::memcpy(&field, at, sizeof field);
    at += sizeof field;
    return field;
}

/// Puts a field of a header, in native byte order, and moves on behind it. No alignment is needed.
template <class T>
void putField(unsigned char*& at, T field) noexcept {
    std::memcpy(at, &field, sizeof field);
    at += sizeof field;
}

/// \name The field of view, radians, of the files of version 0, which do not tell theirs
/// As bits, because the usual decimal for the top, 0.3209778, is rounded to the float next to it.
///@{
inline constexpr float kDefaultLeftAngle = std::bit_cast<float>(std::uint32_t{0x3ED576D4});   //  0.4169222
inline constexpr float kDefaultTopAngle = std::bit_cast<float>(std::uint32_t{0x3EA45733});    //  0.32097778
inline constexpr float kDefaultRightAngle = std::bit_cast<float>(std::uint32_t{0xBED576D4});  // -0.4169222
inline constexpr float kDefaultBottomAngle = std::bit_cast<float>(std::uint32_t{0xBEA45733}); // -0.32097778
///@}

} // namespace KR
