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

#ifndef KR_ROW
#define KR_ROW
namespace KR {
namespace {

unsigned char* row(const GstVideoFrame& frame, int plane, int line) {
    return static_cast<unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane)) +
           std::ptrdiff_t{GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane)} * line;
}

} // namespace
} // namespace KR
#endif

HWY_BEFORE_NAMESPACE();
namespace KR {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

using Words = hn::ScalableTag<std::int16_t>;
using Bytes = hn::Rebind<std::uint8_t, Words>;
using WordVector = hn::Vec<Words>;

// How red, green and blue are stored: RGB, BGR or BGRx.
enum class Order { Rgb, Bgr, Bgrx };

struct Yuv {
    WordVector y, u, v;
};

// A row of Y444.
struct Planes {
    Planes(const GstVideoFrame& frame, int line)
        : y(row(frame, 0, line)), u(row(frame, 1, line)), v(row(frame, 2, line)) {}

    Yuv load(std::size_t x) const {
        const auto promote = [x](const unsigned char* from) {
            return hn::PromoteTo(Words(), hn::LoadU(Bytes(), from + x));
        };
        return {promote(y), promote(u), promote(v)};
    }

    const unsigned char *y, *u, *v;
};

// A row of YUY2: words of Y and U, Y and V by turns.
struct Pairs {
    Pairs(const GstVideoFrame& frame, int line) : bytes(row(frame, 0, line)) {}

    WordVector loadLuma(std::size_t x) const {
        return hn::And(hn::LoadU(Words(), words(x)), hn::Set(Words(), std::int16_t{0xFF}));
    }
    Yuv load(std::size_t x) const {
#if HWY_TARGET == HWY_SCALAR
        const unsigned char* pair = bytes + x / 2 * 4;
        const auto set = [](int value) { return hn::Set(Words(), static_cast<std::int16_t>(value)); };
        return {loadLuma(x), set(pair[1]), set(pair[3])};
#else
        const hn::Repartition<std::uint32_t, Words> pairs;
        const auto both = hn::BitCast(pairs, hn::LoadU(Words(), words(x)));
        const auto u = hn::And(hn::ShiftRight<8>(both), hn::Set(pairs, 0xFFU));
        const auto v = hn::ShiftRight<24>(both);
        const auto twice = [](auto value) {
            return hn::BitCast(Words(), hn::Or(value, hn::ShiftLeft<16>(value)));
        };
        return {loadLuma(x), twice(u), twice(v)};
#endif
    }
    const std::int16_t* words(std::size_t x) const {
        return reinterpret_cast<const std::int16_t*>(bytes + 2 * x); // nothing is read through it but vectors
    }

    const unsigned char* bytes;
};

// Calls `step` with the place of each vector of a row. The last pixels may come twice.
template <class Step>
void forEachVector(int width, Step step) {
    const std::size_t lanes = hn::Lanes(Words());
    const auto end = static_cast<std::size_t>(width);
    for (std::size_t x = 0; x < end; x += lanes) {
        step(std::min(x, end - lanes));
    }
}

// Signed words hold a level times 32: room for twice what is needed, so that nothing overflows before it is limited.
template <class Source, Order order>
void convertRows(const KRRgbConversion::Factors& factors, const GstVideoFrame& yuv, GstVideoFrame& rgb) {
    constexpr std::size_t pixelSize = order == Order::Bgrx ? 4 : 3;
    const Words words;
    const Bytes bytes;
    const auto offset = hn::Set(words, factors.lumaOffset);
    const auto middle = hn::Set(words, std::int16_t{128});
    const auto half = hn::Set(words, std::int16_t{16});
    const auto luma = hn::Set(words, factors.luma);
    const auto redOfV = hn::Set(words, factors.redOfV);
    const auto greenOfU = hn::Set(words, factors.greenOfU);
    const auto greenOfV = hn::Set(words, factors.greenOfV);
    const auto blueOfU = hn::Set(words, factors.blueOfU);
    // 128 * 8192 / 2^15 = 32
    const auto scale = [](WordVector level, WordVector zero) {
        return hn::ShiftLeft<7>(hn::Sub(level, zero));
    };
    const auto toLevel = [&](WordVector sum) { return hn::DemoteTo(bytes, hn::ShiftRight<5>(sum)); };
    for (int line = 0; line < GST_VIDEO_FRAME_HEIGHT(&rgb); ++line) {
        const Source source(yuv, line);
        unsigned char* to = row(rgb, 0, line);
        forEachVector(GST_VIDEO_FRAME_WIDTH(&rgb), [&](std::size_t x) {
            const Yuv pixels = source.load(x);
            const auto u = scale(pixels.u, middle);
            const auto v = scale(pixels.v, middle);
            const auto level = hn::Add(hn::MulFixedPoint15(scale(pixels.y, offset), luma), half);
            const auto red = toLevel(hn::Add(level, hn::MulFixedPoint15(v, redOfV)));
            const auto green = toLevel(
                hn::Sub(hn::Sub(level, hn::MulFixedPoint15(u, greenOfU)), hn::MulFixedPoint15(v, greenOfV)));
            const auto blue = toLevel(hn::Add(level, hn::MulFixedPoint15(u, blueOfU)));
            if constexpr (order == Order::Rgb) {
                hn::StoreInterleaved3(red, green, blue, bytes, to + pixelSize * x);
            } else if constexpr (order == Order::Bgr) {
                hn::StoreInterleaved3(blue, green, red, bytes, to + pixelSize * x);
            } else {
                hn::StoreInterleaved4(blue, green, red, hn::Set(bytes, std::uint8_t{255}), bytes,
                                      to + pixelSize * x);
            }
        });
    }
}

template <class Source>
void convertTo(const KRRgbConversion::Factors& factors, const GstVideoFrame& yuv, GstVideoFrame& rgb) {
    switch (GST_VIDEO_FRAME_FORMAT(&rgb)) {
    case GST_VIDEO_FORMAT_RGB:
        return convertRows<Source, Order::Rgb>(factors, yuv, rgb);
    case GST_VIDEO_FORMAT_BGR:
        return convertRows<Source, Order::Bgr>(factors, yuv, rgb);
    default:
        return convertRows<Source, Order::Bgrx>(factors, yuv, rgb);
    }
}

void convertImage(const KRRgbConversion::Factors& factors, const GstVideoFrame& yuv, GstVideoFrame& rgb) {
    return GST_VIDEO_FRAME_FORMAT(&yuv) == GST_VIDEO_FORMAT_YUY2 ? convertTo<Pairs>(factors, yuv, rgb)
                                                                 : convertTo<Planes>(factors, yuv, rgb);
}

void takeLumaOfImage(const GstVideoFrame& yuv, GstVideoFrame& luma) {
    for (int line = 0; line < GST_VIDEO_FRAME_HEIGHT(&luma); ++line) {
        const Pairs source(yuv, line);
        unsigned char* to = row(luma, 0, line);
        forEachVector(GST_VIDEO_FRAME_WIDTH(&luma), [&](std::size_t x) {
            hn::StoreU(hn::DemoteTo(Bytes(), source.loadLuma(x)), Bytes(), to + x);
        });
    }
}

void narrowBytes(unsigned char* bytes, std::size_t size, bool hasColors) {
    const Words words;
    const Bytes levels;
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
HWY_EXPORT(takeLumaOfImage);
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

void takeLuma(const GstVideoFrame& yuv, GstVideoFrame& luma) {
    HWY_DYNAMIC_DISPATCH(takeLumaOfImage)(yuv, luma);
}

void narrowLevels(unsigned char* bytes, std::size_t size, bool hasColors) {
    HWY_DYNAMIC_DISPATCH(narrowBytes)(bytes, size, hasColors);
}

} // namespace KR
#endif
