#pragma once

#include <array>
#include <bit>
#include <cstdint>

namespace KR {

/// The field of view of images whose source does not report it: left, top, right, bottom, radians. As bits, because the
/// usual decimal for the top, 0.3209778, rounds to the neighbouring float.
inline constexpr std::array<float, 4> kDefaultAngles = {
    std::bit_cast<float>(std::uint32_t{0x3ED576D4}),  //  0.4169222
    std::bit_cast<float>(std::uint32_t{0x3EA45733}),  //  0.32097778
    std::bit_cast<float>(std::uint32_t{0xBED576D4}),  // -0.4169222
    std::bit_cast<float>(std::uint32_t{0xBEA45733})}; // -0.32097778

} // namespace KR
