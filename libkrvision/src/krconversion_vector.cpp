// Compiled once for each instruction set that is named here; the processor that runs the program chooses.
// The fallbacks (HWY_SCALAR, HWY_EMU128) are included only because one is required.
#define HWY_DISABLED_TARGETS (~(HWY_SSSE3 | HWY_SSE4 | HWY_AVX2 | HWY_NEON | HWY_SCALAR | HWY_EMU128))
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "krconversion_vector.cpp" // NOLINT: this file includes itself
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "krconversionpath.hpp"
#include "krprefetch.hpp"

HWY_BEFORE_NAMESPACE();
namespace KR {
namespace HWY_NAMESPACE {

#if HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_EMU128

namespace hn = hwy::HWY_NAMESPACE;

// Vectors have one or two blocks of 16 bytes. Most operations below work within blocks, so each block gets its own
// run of pixels; the two runs are adjacent in memory.
constexpr std::size_t kBytes = HWY_TARGET == HWY_AVX2 ? 32 : 16;
constexpr std::size_t kBlocks = kBytes / 16;

using Bytes = hn::FixedTag<std::uint8_t, kBytes>;
using SignedBytes = hn::RebindToSigned<Bytes>;
using Words = hn::Repartition<std::int16_t, Bytes>;
using UnsignedWords = hn::Repartition<std::uint16_t, Bytes>;
using DoubleWords = hn::Repartition<std::uint32_t, Bytes>;
using QuadWords = hn::Repartition<std::uint64_t, Bytes>;
using ByteVector = hn::Vec<Bytes>;
using WordVector = hn::Vec<Words>;
using Coefficients = hn::Vec<SignedBytes>;

// A block from `bytes`, the next one from `distance` further on. Reads nothing before the first or after the second,
// and between them at most the 16 bytes before the second.
template <std::size_t distance>
HWY_INLINE ByteVector loadBlocks(const unsigned char* bytes) {
    const Bytes d;
#if HWY_TARGET == HWY_AVX2
    return hn::ConcatUpperLower(d, hn::LoadU(d, bytes + distance - 16), hn::LoadU(d, bytes));
#else
    return hn::LoadU(d, bytes);
#endif
}

// 16 bytes for every block.
HWY_INLINE ByteVector everyBlock(const std::uint8_t (&bytes)[16]) {
    return hn::LoadDup128(Bytes(), bytes);
}

// The same four signed bytes repeated: one per byte of a YUV422 pair.
HWY_INLINE Coefficients everyPair(int a, int b, int c, int d) {
    const auto byte = [](int value, int position) {
        return static_cast<std::uint32_t>(value & 0xFF) << position;
    };
    return hn::BitCast(SignedBytes(),
                       hn::Set(DoubleWords(), byte(a, 0) | byte(b, 8) | byte(c, 16) | byte(d, 24)));
}

// In each word: its low bytes' product plus its high bytes' product. The sum must fit.
HWY_INLINE WordVector multiplyAndAdd(ByteVector a, Coefficients b) {
#if HWY_TARGET == HWY_AVX2
    return WordVector{_mm256_maddubs_epi16(a.raw, b.raw)};
#elif HWY_ARCH_X86
    return WordVector{_mm_maddubs_epi16(a.raw, b.raw)};
#else
    const Words d;
    const UnsignedWords du;
    const auto wordsA = hn::BitCast(du, a);
    const auto wordsB = hn::BitCast(d, b);
    const auto lowA = hn::BitCast(d, hn::And(wordsA, hn::Set(du, std::uint16_t{0xFF})));
    const auto highA = hn::BitCast(d, hn::ShiftRight<8>(wordsA));
    return hn::Add(hn::Mul(lowA, hn::ShiftRight<8>(hn::ShiftLeft<8>(wordsB))),
                   hn::Mul(highA, hn::ShiftRight<8>(wordsB)));
#endif
}

// In each block: the words of `a`, then those of `b`, limited to 0..255.
HWY_INLINE ByteVector packLimited(WordVector a, WordVector b) {
#if HWY_TARGET == HWY_AVX2
    return ByteVector{_mm256_packus_epi16(a.raw, b.raw)};
#elif HWY_ARCH_X86
    return ByteVector{_mm_packus_epi16(a.raw, b.raw)};
#else
    const hn::Half<Bytes> half;
    return hn::Combine(Bytes(), hn::DemoteTo(half, b), hn::DemoteTo(half, a));
#endif
}

HWY_INLINE ByteVector interleaveLowerQuads(ByteVector a, ByteVector b) {
    const QuadWords d;
    return hn::BitCast(Bytes(), hn::InterleaveLower(d, hn::BitCast(d, a), hn::BitCast(d, b)));
}

HWY_INLINE ByteVector interleaveUpperQuads(ByteVector a, ByteVector b) {
    const QuadWords d;
    return hn::BitCast(Bytes(), hn::InterleaveUpper(d, hn::BitCast(d, a), hn::BitCast(d, b)));
}

// Each result is floor(C / 8192), where C is a sum of bytes times 13-bit coefficients; 16-bit words and 8-bit
// coefficients are fast. So the coefficients are split, coefficient = 32 * high + low, and C / 32 rounded down is the
// sum with the high parts plus the sum with the low parts shifted right by 5: a word whose high byte is the result.
// For Y it fits the word unsigned; for U and V, before their offset, signed. No sum of two products may saturate, so
// green's 129 for Y is split between both. There are three steps so that a loop can interleave three blocks: each
// step waits for the previous one.
class Yuv422FromBgr {
public:
    HWY_INLINE Yuv422FromBgr() {} // not defaulted: that would not be compiled for the target

    struct Samples {
        ByteVector bg, rg; // of pixels 0 to 7 in each block
    };
    HWY_INLINE Samples load(const unsigned char* bgr) const {
        const auto a = hn::TableLookupBytes(loadBlocks<24>(bgr), first_);
        const auto b = hn::TableLookupBytes(loadBlocks<24>(bgr + 8), second_);
        return {interleaveLowerQuads(a, b), interleaveUpperQuads(a, b)};
    }

    struct Sums {
        WordVector yLow, yHigh, uvLow, uvHigh;
    };
    HWY_INLINE Sums multiply(const Samples& s) const {
        const auto evenBG = hn::TableLookupBytes(s.bg, even_);
        const auto evenRG = hn::TableLookupBytes(s.rg, even_);
        return {hn::Add(multiplyAndAdd(s.bg, yLowBG_), multiplyAndAdd(s.rg, yLowRG_)),
                hn::Add(multiplyAndAdd(s.bg, yHighBG_), multiplyAndAdd(s.rg, yHighRG_)),
                hn::Add(multiplyAndAdd(evenBG, uvLowBG_), multiplyAndAdd(evenRG, uvLowRG_)),
                hn::Add(multiplyAndAdd(evenBG, uvHighBG_), multiplyAndAdd(evenRG, uvHighRG_))};
    }

    HWY_INLINE void store(const Sums& sums, unsigned char* yuv) const {
        const UnsignedWords d;
        const Bytes db;
        const auto y = hn::ShiftRight<8>(hn::BitCast(d, hn::Add(sums.yHigh, hn::ShiftRight<5>(sums.yLow))));
        const auto uv = hn::Add(sums.uvHigh, hn::ShiftRight<5>(sums.uvLow));
        const auto bytes = hn::IfThenElse(isChroma_, hn::BitCast(db, uv), hn::BitCast(db, y));
        hn::StoreU(hn::Add(bytes, offsets_), db, yuv);
    }

private:
    // Of the pixels 0 to 3, in bytes 0 to 11: B G of each, then R G of each. Of 4 to 7 the same, 4 bytes later.
    alignas(16) static constexpr std::uint8_t kFirst[16] = {0, 1, 3, 4, 6, 7, 9,  10,
                                                            2, 1, 5, 4, 8, 7, 11, 10};
    alignas(16) static constexpr std::uint8_t kSecond[16] = {4, 5, 7, 8, 10, 11, 13, 14,
                                                             6, 5, 9, 8, 12, 11, 15, 14};
    // Of the pixels 0 to 7: those with even numbers, twice.
    alignas(16) static constexpr std::uint8_t kEven[16] = {0, 1, 0, 1, 4,  5,  4,  5,
                                                           8, 9, 8, 9, 12, 13, 12, 13};
    const ByteVector first_ = everyBlock(kFirst);
    const ByteVector second_ = everyBlock(kSecond);
    const ByteVector even_ = everyBlock(kEven);
    // Y: 802 = 32 * 25 + 2, 4130 = 32 * (100 + 29) + 2, 2104 = 32 * 65 + 24.
    const Coefficients yHighBG_ = everyPair(25, 100, 25, 100);
    const Coefficients yHighRG_ = everyPair(65, 29, 65, 29);
    const Coefficients yLowBG_ = everyPair(2, 2, 2, 2);
    const Coefficients yLowRG_ = everyPair(24, 0, 24, 0);
    // U: 3598 = 32 * 112 + 14, -2384 = 32 * -75 + 16, -1214 = 32 * -38 + 2.
    // V: -585 = 32 * -18 - 9, -3013 = 32 * -94 - 5, 3598 = 32 * 112 + 14.
    const Coefficients uvHighBG_ = everyPair(112, -75, -18, -94);
    const Coefficients uvHighRG_ = everyPair(-38, 0, 112, 0);
    const Coefficients uvLowBG_ = everyPair(14, 16, -9, -5);
    const Coefficients uvLowRG_ = everyPair(2, 0, 14, 0);
    const hn::Mask<Bytes> isChroma_ =
        hn::MaskFromVec(hn::BitCast(Bytes(), hn::Set(UnsignedWords(), std::uint16_t{0xFF00})));
    const ByteVector offsets_ =
        hn::BitCast(Bytes(), hn::Set(UnsignedWords(), std::uint16_t{0x8010})); // 128, 16
};

void yuv422FromBgr(const unsigned char* bgr, unsigned char* yuv, std::size_t pairs) {
    constexpr std::size_t kPairs = 4 * kBlocks;
    constexpr std::size_t kIn = 6 * kPairs;
    constexpr std::size_t kOut = 4 * kPairs;
    if (pairs >= 2 * kPairs) {
        const Yuv422FromBgr convert;
        auto sums = convert.multiply(convert.load(bgr));
        auto samples = convert.load(bgr + kIn);
        for (; pairs >= 3 * kPairs; pairs -= kPairs, bgr += kIn, yuv += kOut) {
            prefetchForWriting(yuv);
            const auto next = convert.load(bgr + 2 * kIn);
            convert.store(sums, yuv);
            sums = convert.multiply(samples);
            samples = next;
        }
        convert.store(sums, yuv);
        convert.store(convert.multiply(samples), yuv + kOut);
        pairs -= 2 * kPairs;
        bgr += 2 * kIn;
        yuv += 2 * kOut;
    }
    scalarConversionPath.yuv422FromBgr(bgr, yuv, pairs);
}

struct BgrWords {
    WordVector b, g, r;
};

// Half of each result's sum C, rounded down, is 128 times the result. It fits a signed word where that matters: where
// it saturates, the result is limited anyway. With D = U - 128 and E = V - 128 it is
//   149 * (Y - 128) + 16688, and
//   blue:   256 * D + floor(2.5 * D)
//   green:  -(104 * D + 50 * E)
//   red:    -ceil(-204.5 * E)
// No partial sum may saturate in one direction if a later term could bring it back. So for blue the constant is added
// last; for green and red, 2844 of it goes with the chroma, which keeps both parts in range.
class BgrFromYuv422 {
public:
    HWY_INLINE BgrFromYuv422() {} // not defaulted: that would not be compiled for the target

    HWY_INLINE BgrWords operator()(ByteVector yuv) const {
        const Words d;
        const auto centered = hn::Xor(yuv, center_);
        const auto signedBytes = [](ByteVector v) { return hn::BitCast(SignedBytes(), v); };
        const auto y = multiplyAndAdd(yScale_, signedBytes(centered));
        const auto yPlus = hn::Add(y, hn::Set(d, std::int16_t{16688 - 2844}));
        const auto rest = hn::Set(d, std::int16_t{2844});
        const auto u = hn::BitCast(d, hn::TableLookupBytesOr0(centered, pickU_)); // 256 * D
        const auto v = hn::BitCast(d, hn::TableLookupBytesOr0(centered, pickV_)); // 256 * E
        const auto uv = hn::TableLookupBytes(centered, pickUV_);
        // The high word of a product, which is rounded down: 256 * D * 640 / 65536.
        const auto blue =
            hn::Add(hn::MulHigh(u, hn::Set(d, std::int16_t{640})), hn::Set(d, std::int16_t{16688}));
        const auto green = hn::Sub(rest, multiplyAndAdd(greenScales_, signedBytes(uv)));
        // A product shifted by 15 and rounded, halves upwards: 256 * E * -26176 / 32768.
        const auto red = hn::Sub(rest, hn::MulFixedPoint15(v, hn::Set(d, std::int16_t{-26176})));
        return {hn::ShiftRight<7>(hn::SaturatedAdd(hn::SaturatedAdd(y, u), blue)),
                hn::ShiftRight<7>(hn::SaturatedAdd(yPlus, green)),
                hn::ShiftRight<7>(hn::SaturatedAdd(yPlus, red))};
    }

private:
    static constexpr std::uint8_t o = 0x80; // a zero
    alignas(16) static constexpr std::uint8_t kU[16] = {o, 1, o, 1, o, 5, o, 5, o, 9, o, 9, o, 13, o, 13};
    alignas(16) static constexpr std::uint8_t kV[16] = {o, 3, o, 3, o, 7, o, 7, o, 11, o, 11, o, 15, o, 15};
    alignas(16) static constexpr std::uint8_t kUV[16] = {1, 3,  1, 3,  5,  7,  5,  7,
                                                         9, 11, 9, 11, 13, 15, 13, 15};
    const ByteVector pickU_ = everyBlock(kU);
    const ByteVector pickV_ = everyBlock(kV);
    const ByteVector pickUV_ = everyBlock(kUV);
    const ByteVector center_ = hn::Set(Bytes(), std::uint8_t{128});
    const ByteVector yScale_ = hn::BitCast(Bytes(), hn::Set(Words(), std::int16_t{149}));
    const ByteVector greenScales_ = hn::BitCast(Bytes(), hn::Set(Words(), std::int16_t{104 + 256 * 50}));
};

// As 3 and 16 have no common factor, one order of the bytes of a plane suits all three blocks of the interleaved
// result: byte i of plane c goes to place (3 * i + c) % 16.
class Interleave3 {
public:
    HWY_INLINE Interleave3() {} // not defaulted: that would not be compiled for the target

    // Stores 48 bytes for every block.
    HWY_INLINE void operator()(ByteVector plane0, ByteVector plane1, ByteVector plane2,
                               unsigned char* out) const {
        const Bytes d;
        const auto b = hn::TableLookupBytes(plane0, order0_);
        const auto g = hn::TableLookupBytes(plane1, order1_);
        const auto r = hn::TableLookupBytes(plane2, order2_);
        const auto first = hn::IfThenElse(at2_, r, hn::IfThenElse(at1_, g, b));
        const auto second = hn::IfThenElse(at1_, r, hn::IfThenElse(at0_, g, b));
        const auto third = hn::IfThenElse(at0_, r, hn::IfThenElse(at2_, g, b));
#if HWY_TARGET == HWY_AVX2
        hn::StoreU(hn::ConcatLowerLower(d, second, first), d, out);
        hn::StoreU(hn::ConcatUpperLower(d, first, third), d, out + 32);
        hn::StoreU(hn::ConcatUpperUpper(d, third, second), d, out + 64);
#else
        hn::StoreU(first, d, out);
        hn::StoreU(second, d, out + 16);
        hn::StoreU(third, d, out + 32);
#endif
    }

private:
    alignas(16) static constexpr std::uint8_t k0[16] = {0, 11, 6, 1, 12, 7, 2, 13, 8, 3, 14, 9, 4, 15, 10, 5};
    alignas(16) static constexpr std::uint8_t k1[16] = {5, 0, 11, 6, 1, 12, 7, 2, 13, 8, 3, 14, 9, 4, 15, 10};
    alignas(16) static constexpr std::uint8_t k2[16] = {10, 5, 0, 11, 6, 1, 12, 7, 2, 13, 8, 3, 14, 9, 4, 15};
    // The places n for which n % 3 is 0, 1 or 2.
    static constexpr std::uint8_t x = 0xFF;
    alignas(16) static constexpr std::uint8_t kAt0[16] = {x, 0, 0, x, 0, 0, x, 0, 0, x, 0, 0, x, 0, 0, x};
    alignas(16) static constexpr std::uint8_t kAt1[16] = {0, x, 0, 0, x, 0, 0, x, 0, 0, x, 0, 0, x, 0, 0};
    alignas(16) static constexpr std::uint8_t kAt2[16] = {0, 0, x, 0, 0, x, 0, 0, x, 0, 0, x, 0, 0, x, 0};
    const ByteVector order0_ = everyBlock(k0);
    const ByteVector order1_ = everyBlock(k1);
    const ByteVector order2_ = everyBlock(k2);
    const hn::Mask<Bytes> at0_ = hn::MaskFromVec(everyBlock(kAt0));
    const hn::Mask<Bytes> at1_ = hn::MaskFromVec(everyBlock(kAt1));
    const hn::Mask<Bytes> at2_ = hn::MaskFromVec(everyBlock(kAt2));
};

void bgrFromYuv422(const unsigned char* yuv, unsigned char* bgr, std::size_t pairs) {
    const BgrFromYuv422 convert;
    const Interleave3 interleave;
    constexpr std::size_t kPairs = 8 * kBlocks;
    for (; pairs >= kPairs; pairs -= kPairs, yuv += 4 * kPairs, bgr += 6 * kPairs) {
        prefetchForWriting(bgr);
        prefetchForWriting(bgr + 3 * kPairs);
        const auto even = convert(loadBlocks<32>(yuv));
        const auto odd = convert(loadBlocks<32>(yuv + 16));
        interleave(packLimited(even.b, odd.b), packLimited(even.g, odd.g), packLimited(even.r, odd.r), bgr);
    }
    scalarConversionPath.bgrFromYuv422(yuv, bgr, pairs);
}

void planes444FromYuv422(const unsigned char* yuv, unsigned char* y, unsigned char* u, unsigned char* v,
                         std::size_t pairs) {
    const Bytes d;
    const Words dw;
    // U of 8 pixels, then V of the same.
    alignas(16) static constexpr std::uint8_t kChroma[16] = {1, 1, 5, 5, 9,  9,  13, 13,
                                                             3, 3, 7, 7, 11, 11, 15, 15};
    const auto chroma = everyBlock(kChroma);
    const auto isY = hn::Set(dw, std::int16_t{0xFF});
    constexpr std::size_t kPairs = 8 * kBlocks;
    for (; pairs >= kPairs;
         pairs -= kPairs, yuv += 4 * kPairs, y += 2 * kPairs, u += 2 * kPairs, v += 2 * kPairs) {
        prefetchForWriting(y);
        prefetchForWriting(u);
        prefetchForWriting(v);
        const auto a = loadBlocks<32>(yuv);
        const auto b = loadBlocks<32>(yuv + 16);
        const auto uvA = hn::TableLookupBytes(a, chroma);
        const auto uvB = hn::TableLookupBytes(b, chroma);
        hn::StoreU(packLimited(hn::And(hn::BitCast(dw, a), isY), hn::And(hn::BitCast(dw, b), isY)), d, y);
        hn::StoreU(interleaveLowerQuads(uvA, uvB), d, u);
        hn::StoreU(interleaveUpperQuads(uvA, uvB), d, v);
    }
    scalarConversionPath.planes444FromYuv422(yuv, y, u, v, pairs);
}

void planes422FromYuv422(const unsigned char* yuv, unsigned char* y, unsigned char* u, unsigned char* v,
                         std::size_t pairs) {
    const Bytes d;
    const DoubleWords dd;
    // Y of 8 pixels, then U and V of 4 pairs each.
    alignas(16) static constexpr std::uint8_t kSplit[16] = {0, 2, 4, 6,  8, 10, 12, 14,
                                                            1, 5, 9, 13, 3, 7,  11, 15};
    const auto split = everyBlock(kSplit);
    const auto interleaveUpperDoubles = [dd](ByteVector a, ByteVector b) {
        return hn::BitCast(Bytes(), hn::InterleaveUpper(dd, hn::BitCast(dd, a), hn::BitCast(dd, b)));
    };
    constexpr std::size_t kPairs = 16 * kBlocks;
    for (; pairs >= kPairs; pairs -= kPairs, yuv += 4 * kPairs, y += 2 * kPairs, u += kPairs, v += kPairs) {
        prefetchForWriting(y);
        prefetchForWriting(u);
        prefetchForWriting(v);
        const auto a0 = hn::TableLookupBytes(loadBlocks<64>(yuv), split);
        const auto a1 = hn::TableLookupBytes(loadBlocks<64>(yuv + 16), split);
        const auto a2 = hn::TableLookupBytes(loadBlocks<64>(yuv + 32), split);
        const auto a3 = hn::TableLookupBytes(loadBlocks<64>(yuv + 48), split);
        const auto y01 = interleaveLowerQuads(a0, a1);
        const auto y23 = interleaveLowerQuads(a2, a3);
        const auto uv01 = interleaveUpperDoubles(a0, a1);
        const auto uv23 = interleaveUpperDoubles(a2, a3);
#if HWY_TARGET == HWY_AVX2
        hn::StoreU(hn::ConcatLowerLower(d, y23, y01), d, y);
        hn::StoreU(hn::ConcatUpperUpper(d, y23, y01), d, y + kBytes);
#else
        hn::StoreU(y01, d, y);
        hn::StoreU(y23, d, y + kBytes);
#endif
        hn::StoreU(interleaveLowerQuads(uv01, uv23), d, u);
        hn::StoreU(interleaveUpperQuads(uv01, uv23), d, v);
    }
    scalarConversionPath.planes422FromYuv422(yuv, y, u, v, pairs);
}

extern const ConversionPath path;
const ConversionPath path = {hwy::TargetName(HWY_TARGET), yuv422FromBgr, bgrFromYuv422, planes444FromYuv422,
                             planes422FromYuv422};

#endif

} // namespace HWY_NAMESPACE
} // namespace KR
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace KR {

std::vector<const ConversionPath*> vectorConversionPaths() {
    [[maybe_unused]] const auto supported = HWY_SUPPORTED_TARGETS;
    std::vector<const ConversionPath*> paths;
#if HWY_TARGETS & HWY_AVX2
    if (supported & HWY_AVX2) {
        paths.push_back(&N_AVX2::path);
    }
#endif
#if HWY_TARGETS & HWY_SSE4
    if (supported & HWY_SSE4) {
        paths.push_back(&N_SSE4::path);
    }
#endif
#if HWY_TARGETS & HWY_SSSE3
    if (supported & HWY_SSSE3) {
        paths.push_back(&N_SSSE3::path);
    }
#endif
#if HWY_TARGETS & HWY_NEON
    if (supported & HWY_NEON) {
        paths.push_back(&N_NEON::path);
    }
#endif
    return paths;
}

} // namespace KR
#endif
