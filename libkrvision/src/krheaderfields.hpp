#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace KR {

/// Reads a header field in native byte order and advances past it. `at` need not be aligned.
template <class T>
T takeField(const unsigned char*& at) noexcept {
    T field;
    std::memcpy(&field, at, sizeof field);
    at += sizeof field;
    return field;
}

/// Writes a header field in native byte order and advances past it. `at` need not be aligned.
template <class T>
void putField(unsigned char*& at, T field) noexcept {
    std::memcpy(at, &field, sizeof field);
    at += sizeof field;
}

/// The field of view of version 0 files, which store none: left, top, right, bottom, radians. As bits,
/// because the usual decimal for the top, 0.3209778, rounds to the neighbouring float.
inline constexpr std::array<float, 4> kDefaultAngles = {
    std::bit_cast<float>(std::uint32_t{0x3ED576D4}),  //  0.4169222
    std::bit_cast<float>(std::uint32_t{0x3EA45733}),  //  0.32097778
    std::bit_cast<float>(std::uint32_t{0xBED576D4}),  // -0.4169222
    std::bit_cast<float>(std::uint32_t{0xBEA45733})}; // -0.32097778

} // namespace KR
