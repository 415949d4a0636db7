#pragma once

#include <gst/video/video.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace KR {

/// Converts YUV images to the colours of another layout, to the nearest level. Thread-safe.
class KRColorConversion {
public:
    /// \param in   colours of the YUV images, whose matrix must have the factors Kr and Kb
    /// \param out  the layout of the result: RGB, BGR, BGRx, YUY2 or GRAY8
    KRColorConversion(const GstVideoColorimetry& in, const GstVideoInfo& out);

    /// \param in   an image in the format YUY2, or Y444 if the result is RGB; its width is even and at least 32
    /// \param out  an image of the layout given to the constructor and the same size, which does not overlap `in`
    void convert(const GstVideoFrame& in, GstVideoFrame& out) const;

    /// The result is (level - black or grey) * factor + black or grey.
    struct Factors {
        std::int16_t blackIn; ///< of Y; the grey of U and V is 128
        std::int16_t blackOut;
        std::array<std::array<std::int16_t, 3>, 3>
            matrix; ///< of Y, U and V to Y, U and V or R, G and B; in 1/8192
    };

private:
    Factors factors_;
};

/// The instruction sets that the conversion is compiled for and this processor has, the fastest first: "AVX2" and so
/// on. For tests.
std::vector<std::string> listColorConversionPaths();

/// Makes all conversions in this process use one of these instruction sets; the fastest again if the name is empty. Not
/// concurrently with a conversion. For tests.
void forceColorConversionPath(const std::string& name);

} // namespace KR
