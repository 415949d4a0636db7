#pragma once

#include <gst/video/video.h>

#include <cstddef>
#include <cstdint>

namespace KR {

/// YUV of 8 bits to RGB, to the nearest level. Thread-safe.
class KRRgbConversion {
public:
    /// \param colors  of the YUV images, whose matrix must have the factors Kr and Kb
    explicit KRRgbConversion(const GstVideoColorimetry& colors);

    /// \param yuv  in the format Y444 or YUY2; its width is even, and 32 pixels at least
    /// \param rgb  in the format RGB, BGR or BGRx, of the same size
    void convert(const GstVideoFrame& yuv, GstVideoFrame& rgb) const;

    /// How much of each component is in another; the unit is 1/8192.
    struct Factors {
        std::int16_t lumaOffset; ///< the level that is black
        std::int16_t luma, redOfV, greenOfU, greenOfV, blueOfU;
    };

private:
    Factors factors_;
};

/// The Y of an image.
/// \param yuv  in the format YUY2; its width is even, and 32 pixels at least
/// \param luma  in the format GRAY8, of the same size
void takeLuma(const GstVideoFrame& yuv, GstVideoFrame& luma);

/// Brings levels from 0..255, as JPEG has them, to 16..235 for Y and 16..240 for U and V, in place.
/// \param hasColors  the bytes are Y and a colour by turns, as in YUV422; otherwise Y only
void narrowLevels(unsigned char* bytes, std::size_t size, bool hasColors);

} // namespace KR
