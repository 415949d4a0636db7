// Compiled once for each instruction set; the processor that runs the program chooses.
#define HWY_DISABLED_TARGETS (HWY_AVX3 | HWY_AVX3_DL) // memory is the limit before these would be
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE                                                                                   \
    "../src/krcolorconversion.cpp" // NOLINT: this file includes itself, seen from include/
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "krcolorconversion.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

HWY_BEFORE_NAMESPACE();
namespace KR {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// How red, green and blue are stored: RGB, BGR or BGRx.
enum class Order { Rgb, Bgr, Bgrx };

// Signed words hold a level times 32: room for twice what is needed, so that nothing overflows before it is limited.
template <Order order>
void convertRow(const KRRgbConversion::Factors& factors, const unsigned char* y, const unsigned char* u,
                const unsigned char* v, unsigned char* rgb, std::size_t width) {
    const hn::ScalableTag<std::int16_t> words;
    const hn::Rebind<std::uint8_t, decltype(words)> bytes;
    constexpr std::size_t pixelSize = order == Order::Bgrx ? 4 : 3;
    const std::size_t step = hn::Lanes(words);

    const auto offset = hn::Set(words, factors.lumaOffset);
    const auto middle = hn::Set(words, std::int16_t{128});
    const auto half = hn::Set(words, std::int16_t{16});
    const auto luma = hn::Set(words, factors.luma);
    const auto redOfV = hn::Set(words, factors.redOfV);
    const auto greenOfU = hn::Set(words, factors.greenOfU);
    const auto greenOfV = hn::Set(words, factors.greenOfV);
    const auto blueOfU = hn::Set(words, factors.blueOfU);
    // The difference of two levels times 128, for 128 * 8192 / 2^15 = 32.
    const auto load = [&](const unsigned char* from, auto zero) {
        return hn::ShiftLeft<7>(hn::Sub(hn::PromoteTo(words, hn::LoadU(bytes, from)), zero));
    };
    const auto toLevel = [&](auto sum) { return hn::DemoteTo(bytes, hn::ShiftRight<5>(sum)); };
    for (std::size_t x = 0;;) {
        const auto chroma1 = load(u + x, middle);
        const auto chroma2 = load(v + x, middle);
        const auto level = hn::Add(hn::MulFixedPoint15(load(y + x, offset), luma), half);
        const auto red = toLevel(hn::Add(level, hn::MulFixedPoint15(chroma2, redOfV)));
        const auto green = toLevel(hn::Sub(hn::Sub(level, hn::MulFixedPoint15(chroma1, greenOfU)),
                                           hn::MulFixedPoint15(chroma2, greenOfV)));
        const auto blue = toLevel(hn::Add(level, hn::MulFixedPoint15(chroma1, blueOfU)));
        unsigned char* to = rgb + pixelSize * x;
        if constexpr (order == Order::Rgb) {
            hn::StoreInterleaved3(red, green, blue, bytes, to);
        } else if constexpr (order == Order::Bgr) {
            hn::StoreInterleaved3(blue, green, red, bytes, to);
        } else {
            hn::StoreInterleaved4(blue, green, red, hn::Set(bytes, std::uint8_t{255}), bytes, to);
        }
        if (x + step >= width) {
            return;
        }
        x = std::min(x + step, width - step); // the last pixels may be converted twice
    }
}

void convertImage(const KRRgbConversion::Factors& factors, const GstVideoFrame& yuv, GstVideoFrame& rgb) {
    const auto convert = [&] {
        switch (GST_VIDEO_FRAME_FORMAT(&rgb)) {
        case GST_VIDEO_FORMAT_RGB:
            return convertRow<Order::Rgb>;
        case GST_VIDEO_FORMAT_BGR:
            return convertRow<Order::Bgr>;
        default:
            return convertRow<Order::Bgrx>;
        }
    }();
    const auto row = [](const GstVideoFrame& frame, int plane, int y) {
        return static_cast<unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane)) +
               std::ptrdiff_t{GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane)} * y;
    };
    for (int y = 0; y < GST_VIDEO_FRAME_HEIGHT(&rgb); ++y) {
        convert(factors, row(yuv, 0, y), row(yuv, 1, y), row(yuv, 2, y), row(rgb, 0, y),
                static_cast<std::size_t>(GST_VIDEO_FRAME_WIDTH(&rgb)));
    }
}

void narrowBytes(unsigned char* bytes, std::size_t size, bool hasColors) {
    const hn::ScalableTag<std::int16_t> words;
    const hn::Rebind<std::uint8_t, decltype(words)> levels;
    const std::size_t step = hn::Lanes(words);

    // One more, to begin at a colour where a vector is no longer than that.
    using Table = std::array<std::int16_t, hn::MaxLanes(words) + 1>;
    Table middles;
    Table factors;
    Table offsets;
    for (std::size_t i = 0; i < factors.size(); ++i) {
        const bool isColor = hasColors && i % 2 != 0;
        middles[i] = isColor ? 128 : 0;
        factors[i] = isColor ? 7196 : 7036; // 8192 * 224 / 255, 8192 * 219 / 255
        offsets[i] =
            isColor ? 128 * 32 + 16 : 16 * 32 + 16; // the new level of it, and half a level to round by
    }
    const auto narrow = [&](unsigned char* to, std::size_t phase) {
        const auto load = [&](const Table& table) { return hn::LoadU(words, table.data() + phase); };
        const auto difference = hn::Sub(hn::PromoteTo(words, hn::LoadU(levels, to)), load(middles));
        const auto level = hn::MulFixedPoint15(hn::ShiftLeft<7>(difference), load(factors));
        hn::StoreU(hn::DemoteTo(levels, hn::ShiftRight<5>(hn::Add(level, load(offsets)))), levels, to);
    };
    std::size_t i = 0;
    for (; i + step <= size; i += step) {
        narrow(bytes + i, i % 2);
    }
    std::array<unsigned char, hn::MaxLanes(words)> rest{};
    std::copy(bytes + i, bytes + size, rest.begin());
    narrow(rest.data(), i % 2);
    std::copy_n(rest.begin(), size - i, bytes + i);
}

} // namespace HWY_NAMESPACE
} // namespace KR
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace KR {

HWY_EXPORT(convertImage);
HWY_EXPORT(narrowBytes);

// R = Y + 2 (1 - Kr) V, B = Y + 2 (1 - Kb) U, and G such that Y = Kr R + Kg G + Kb B (ITU-R BT.601 and BT.709), where
// Y takes 219 levels and U and V take 224, or all of them 255.
KRRgbConversion::KRRgbConversion(const GstVideoColorimetry& colors) {
    gdouble kr = 0;
    gdouble kb = 0;
    gst_video_color_matrix_get_Kr_Kb(colors.matrix, &kr, &kb);
    const double kg = 1 - kr - kb;
    const bool full = colors.range == GST_VIDEO_COLOR_RANGE_0_255;
    const double chroma = full ? 1 : 255.0 / 224;
    const auto toFactor = [](double factor) { return static_cast<std::int16_t>(std::lround(8192 * factor)); };
    factors_.lumaOffset = full ? 0 : 16;
    factors_.luma = toFactor(full ? 1 : 255.0 / 219);
    factors_.redOfV = toFactor(2 * (1 - kr) * chroma);
    factors_.greenOfU = toFactor(2 * (1 - kb) * kb / kg * chroma);
    factors_.greenOfV = toFactor(2 * (1 - kr) * kr / kg * chroma);
    factors_.blueOfU = toFactor(2 * (1 - kb) * chroma);
}

void KRRgbConversion::convert(const GstVideoFrame& yuv, GstVideoFrame& rgb) const {
    HWY_DYNAMIC_DISPATCH(convertImage)(factors_, yuv, rgb);
}

void narrowLevels(unsigned char* bytes, std::size_t size, bool hasColors) {
    HWY_DYNAMIC_DISPATCH(narrowBytes)(bytes, size, hasColors);
}

} // namespace KR
#endif
