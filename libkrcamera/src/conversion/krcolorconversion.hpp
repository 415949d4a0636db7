#pragma once

#include <gst/video/video.h>

#include <array>
#include <cstdint>

namespace KR {

/// From YUV to the colours of another layout, to the nearest level. Thread-safe.
class KRColorConversion {
public:
    /// \param in   colours of the YUV images, whose matrix must have the factors Kr and Kb
    /// \param out  what they become: RGB, BGR, BGRx, YUY2 or GRAY8
    KRColorConversion(const GstVideoColorimetry& in, const GstVideoInfo& out);

    /// \param in   in the format YUY2, or Y444 if RGB comes out; its width is even, and 32 pixels at least
    /// \param out  in the layout that was given, of the same size, and other memory
    void convert(const GstVideoFrame& in, GstVideoFrame& out) const;

    /// Levels in minus their black or grey, times the factors, plus the black or grey of the levels out.
    struct Factors {
        std::int16_t blackIn; ///< of Y; the grey of U and V is 128
        std::int16_t blackOut;
        std::array<std::array<std::int16_t, 3>, 3>
            matrix; ///< of Y, U and V to Y, U and V or R, G and B; in 1/8192
    };

private:
    Factors factors_;
};

} // namespace KR
