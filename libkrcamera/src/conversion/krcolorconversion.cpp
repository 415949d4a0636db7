// Compiled once for each instruction set except AVX-512; the fastest that the processor has is chosen at run time.
#define HWY_DISABLED_TARGETS (HWY_AVX3 | HWY_AVX3_DL)
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "conversion/krcolorconversion.cpp" // NOLINT: this file includes itself
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "conversion/krcolorconversion.hpp"

#include <algorithm>
#include <array>
#include <cassert>
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

// A row of YUY2: words of Y and U alternate with words of Y and V.
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
        return reinterpret_cast<const std::int16_t*>(bytes + 2 * x); // used for vector loads only
    }

    const unsigned char* bytes;
};

// Calls `step` with the position of each vector of a row. The last two vectors may overlap.
template <class Step>
void forEachVector(int width, Step step) {
    const std::size_t lanes = hn::Lanes(Words());
    const auto end = static_cast<std::size_t>(width);
    for (std::size_t x = 0; x < end; x += lanes) {
        step(std::min(x, end - lanes));
    }
}

// Levels in signed words, multiplied by 32: twice the range that is needed, so that nothing overflows before it is
// clamped.
class Arithmetic {
public:
    explicit Arithmetic(const KRColorConversion::Factors& factors)
        : blackIn_(set(factors.blackIn)), blackOut_(set(factors.blackOut * 32 + half)) {}

    static WordVector set(int value) { return hn::Set(Words(), static_cast<std::int16_t>(value)); }

    /// The multiplicands of the factors: 128 * 8192 / 2^15 = 32.
    Yuv scale(const Yuv& levels) const {
        const auto scaled = [](WordVector level, WordVector zero) {
            return hn::ShiftLeft<7>(hn::Sub(level, zero));
        };
        return {scaled(levels.y, blackIn_), scaled(levels.u, set(128)), scaled(levels.v, set(128))};
    }
    /// Converts Y from one matrix to another.
    WordVector convertLuma(const Yuv& scaled, const std::array<std::int16_t, 3>& factors) const {
        return hn::Add(hn::Add(blackOut_, hn::MulFixedPoint15(scaled.y, set(factors[0]))),
                       hn::Add(hn::MulFixedPoint15(scaled.u, set(factors[1])),
                               hn::MulFixedPoint15(scaled.v, set(factors[2]))));
    }

    static constexpr int half = 16; ///< half a level, for rounding

private:
    WordVector blackIn_;
    WordVector blackOut_;
};

template <class Source, Order order>
void convertToRgb(const KRColorConversion::Factors& factors, const GstVideoFrame& in, GstVideoFrame& out) {
    constexpr std::size_t pixelSize = order == Order::Bgrx ? 4 : 3;
    const Bytes bytes;
    const Arithmetic arithmetic(factors);
    // The other two factors are zero.
    const auto luma = Arithmetic::set(factors.matrix[0][0]);
    const auto redOfV = Arithmetic::set(factors.matrix[0][2]);
    const auto greenOfU = Arithmetic::set(factors.matrix[1][1]);
    const auto greenOfV = Arithmetic::set(factors.matrix[1][2]);
    const auto blueOfU = Arithmetic::set(factors.matrix[2][1]);
    const auto toLevel = [&](WordVector sum) { return hn::DemoteTo(bytes, hn::ShiftRight<5>(sum)); };
    for (int line = 0; line < GST_VIDEO_FRAME_HEIGHT(&out); ++line) {
        const Source source(in, line);
        unsigned char* to = row(out, 0, line);
        forEachVector(GST_VIDEO_FRAME_WIDTH(&out), [&](std::size_t x) {
            const Yuv yuv = arithmetic.scale(source.load(x));
            const auto y = hn::Add(hn::MulFixedPoint15(yuv.y, luma), Arithmetic::set(Arithmetic::half));
            const auto red = toLevel(hn::Add(y, hn::MulFixedPoint15(yuv.v, redOfV)));
            const auto green = toLevel(hn::Add(hn::Add(y, hn::MulFixedPoint15(yuv.u, greenOfU)),
                                               hn::MulFixedPoint15(yuv.v, greenOfV)));
            const auto blue = toLevel(hn::Add(y, hn::MulFixedPoint15(yuv.u, blueOfU)));
            unsigned char* pixels = to + pixelSize * x;
            if constexpr (order == Order::Rgb) {
                hn::StoreInterleaved3(red, green, blue, bytes, pixels);
            } else if constexpr (order == Order::Bgr) {
                hn::StoreInterleaved3(blue, green, red, bytes, pixels);
            } else {
                hn::StoreInterleaved4(blue, green, red, hn::Set(bytes, std::uint8_t{255}), bytes, pixels);
            }
        });
    }
}

void convertToPairs(const KRColorConversion::Factors& factors, const GstVideoFrame& in, GstVideoFrame& out) {
    const Words words;
    const Arithmetic arithmetic(factors);
    // U and V alternate. One more element, to start at a V if a vector has only one lane.
    std::array<std::int16_t, hn::MaxLanes(Words()) + 1> ofU;
    std::array<std::int16_t, hn::MaxLanes(Words()) + 1> ofV;
    for (std::size_t i = 0; i < ofU.size(); ++i) {
        ofU[i] = factors.matrix[1 + i % 2][1]; // neither depends on Y
        ofV[i] = factors.matrix[1 + i % 2][2];
    }
    const auto grey = Arithmetic::set(128 * 32 + Arithmetic::half);
    const auto toLevel = [](WordVector sum) {
        return hn::Min(hn::Max(hn::ShiftRight<5>(sum), Arithmetic::set(0)), Arithmetic::set(255));
    };
    for (int line = 0; line < GST_VIDEO_FRAME_HEIGHT(&out); ++line) {
        const Pairs source(in, line);
        unsigned char* to = row(out, 0, line);
        forEachVector(GST_VIDEO_FRAME_WIDTH(&out), [&](std::size_t x) {
            const Yuv yuv = arithmetic.scale(source.load(x));
            const auto color =
                hn::Add(grey, hn::Add(hn::MulFixedPoint15(yuv.u, hn::LoadU(words, ofU.data() + x % 2)),
                                      hn::MulFixedPoint15(yuv.v, hn::LoadU(words, ofV.data() + x % 2))));
            const auto luma = toLevel(arithmetic.convertLuma(yuv, factors.matrix[0]));
            hn::StoreU(hn::Or(luma, hn::ShiftLeft<8>(toLevel(color))), words,
                       reinterpret_cast<std::int16_t*>(to + 2 * x));
        });
    }
}

void convertToLuma(const KRColorConversion::Factors& factors, const GstVideoFrame& in, GstVideoFrame& out) {
    const Arithmetic arithmetic(factors);
    for (int line = 0; line < GST_VIDEO_FRAME_HEIGHT(&out); ++line) {
        const Pairs source(in, line);
        unsigned char* to = row(out, 0, line);
        forEachVector(GST_VIDEO_FRAME_WIDTH(&out), [&](std::size_t x) {
            const auto luma = arithmetic.convertLuma(arithmetic.scale(source.load(x)), factors.matrix[0]);
            hn::StoreU(hn::DemoteTo(Bytes(), hn::ShiftRight<5>(luma)), Bytes(), to + x);
        });
    }
}

template <class Source>
void convertToRgb(const KRColorConversion::Factors& factors, const GstVideoFrame& in, GstVideoFrame& out) {
    switch (GST_VIDEO_FRAME_FORMAT(&out)) {
    case GST_VIDEO_FORMAT_RGB:
        return convertToRgb<Source, Order::Rgb>(factors, in, out);
    case GST_VIDEO_FORMAT_BGR:
        return convertToRgb<Source, Order::Bgr>(factors, in, out);
    default:
        return convertToRgb<Source, Order::Bgrx>(factors, in, out);
    }
}

void convertImage(const KRColorConversion::Factors& factors, const GstVideoFrame& in, GstVideoFrame& out) {
    switch (GST_VIDEO_FRAME_FORMAT(&out)) {
    case GST_VIDEO_FORMAT_YUY2:
        return convertToPairs(factors, in, out);
    case GST_VIDEO_FORMAT_GRAY8:
        return convertToLuma(factors, in, out);
    default:
        return GST_VIDEO_FRAME_FORMAT(&in) == GST_VIDEO_FORMAT_YUY2 ? convertToRgb<Pairs>(factors, in, out)
                                                                    : convertToRgb<Planes>(factors, in, out);
    }
}

} // namespace HWY_NAMESPACE
} // namespace KR
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace KR {

HWY_EXPORT(convertImage);

namespace {

using Matrix = std::array<std::array<double, 3>, 3>;

Matrix multiply(const Matrix& a, const Matrix& b) {
    Matrix product{};
    for (std::size_t i = 0; i < 3; ++i) {
        for (std::size_t j = 0; j < 3; ++j) {
            for (std::size_t k = 0; k < 3; ++k) {
                product[i][j] += a[i][k] * b[k][j];
            }
        }
    }
    return product;
}

Matrix diagonal(double a, double b, double c) {
    return {{{a, 0, 0}, {0, b, 0}, {0, 0, c}}};
}

// Number of levels of Y, U and V.
Matrix getSpans(const GstVideoColorimetry& colors) {
    return colors.range == GST_VIDEO_COLOR_RANGE_0_255 ? diagonal(255, 255, 255) : diagonal(219, 224, 224);
}

Matrix getInverseSpans(const GstVideoColorimetry& colors) {
    const Matrix spans = getSpans(colors);
    return diagonal(1 / spans[0][0], 1 / spans[1][1], 1 / spans[2][2]);
}

std::int16_t getBlack(const GstVideoColorimetry& colors) {
    return colors.range == GST_VIDEO_COLOR_RANGE_0_255 ? 0 : 16;
}

// R = Y + 2 (1 - Kr) V, B = Y + 2 (1 - Kb) U, and G such that Y = Kr R + Kg G + Kb B (ITU-R BT.601 and BT.709), with
// Y, R, G and B from 0 to 1 and U and V from -1/2 to 1/2.
Matrix getRgbOfYuv(const GstVideoColorimetry& colors) {
    gdouble kr = 0;
    gdouble kb = 0;
    gst_video_color_matrix_get_Kr_Kb(colors.matrix, &kr, &kb);
    const double kg = 1 - kr - kb;
    return {
        {{1, 0, 2 * (1 - kr)}, {1, -2 * (1 - kb) * kb / kg, -2 * (1 - kr) * kr / kg}, {1, 2 * (1 - kb), 0}}};
}

Matrix getYuvOfRgb(const GstVideoColorimetry& colors) {
    gdouble kr = 0;
    gdouble kb = 0;
    gst_video_color_matrix_get_Kr_Kb(colors.matrix, &kr, &kb);
    const double kg = 1 - kr - kb;
    const double u = 2 * (1 - kb);
    const double v = 2 * (1 - kr);
    return {{{kr, kg, kb}, {-kr / u, -kg / u, (1 - kb) / u}, {(1 - kr) / v, -kg / v, -kb / v}}};
}

} // namespace

KRColorConversion::KRColorConversion(const GstVideoColorimetry& in, const GstVideoInfo& out) {
    const bool isRgb = GST_VIDEO_INFO_IS_RGB(&out);
    const Matrix toRgb = multiply(getRgbOfYuv(in), getInverseSpans(in));
    const Matrix toLevels =
        isRgb ? diagonal(255, 255, 255) : multiply(getSpans(out.colorimetry), getYuvOfRgb(out.colorimetry));
    const Matrix matrix = multiply(toLevels, toRgb);
    for (std::size_t i = 0; i < 3; ++i) {
        for (std::size_t j = 0; j < 3; ++j) {
            factors_.matrix[i][j] = static_cast<std::int16_t>(std::lround(8192 * matrix[i][j]));
        }
    }
    factors_.blackIn = getBlack(in);
    factors_.blackOut = isRgb ? 0 : getBlack(out.colorimetry);
}

void KRColorConversion::convert(const GstVideoFrame& in, GstVideoFrame& out) const {
    assert(GST_VIDEO_FRAME_WIDTH(&in) >= 32 && GST_VIDEO_FRAME_WIDTH(&in) % 2 == 0);
    assert(GST_VIDEO_FRAME_WIDTH(&in) == GST_VIDEO_FRAME_WIDTH(&out));
    assert(GST_VIDEO_FRAME_HEIGHT(&in) == GST_VIDEO_FRAME_HEIGHT(&out));
    HWY_DYNAMIC_DISPATCH(convertImage)(factors_, in, out);
}

std::vector<std::string> listColorConversionPaths() {
    hwy::SetSupportedTargetsForTest(0); // the real ones
    std::vector<std::string> names;
    for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
        names.emplace_back(hwy::TargetName(target));
    }
    return names;
}

void forceColorConversionPath(const std::string& name) {
    hwy::SetSupportedTargetsForTest(0);
    for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
        if (name == hwy::TargetName(target)) {
            hwy::SetSupportedTargetsForTest(target);
        }
    }
    hwy::GetChosenTarget().DeInit(); // the next conversion chooses again
}

} // namespace KR
#endif
