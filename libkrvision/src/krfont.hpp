#pragma once

#include <array>
#include <cstdint>

namespace KR {

/// A fixed-width font of five by seven pixels.
struct KRFont {
    static constexpr int kWidth = 5;
    static constexpr int kHeight = 7;
    static constexpr int kAdvance = 6; ///< from one character to the next

    /// Rows of a printable ASCII character from top to bottom; bit 4 of a row is its leftmost pixel. Any other byte
    /// gives the question mark.
    static const std::array<std::uint8_t, kHeight>& getGlyph(char character) noexcept;
};

} // namespace KR
