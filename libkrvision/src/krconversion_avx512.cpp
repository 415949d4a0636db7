// The conversions for processors that have AVX-512 with its byte permutations (VBMI) and its dot products of bytes
// (VNNI). Only the functions marked KR_AVX512 are compiled for these, so that no other code depends on them.
#include "krconversionpath.hpp"

#include "krprefetch.hpp"

#if defined(__x86_64__)

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized" // its own header leaves values undefined on purpose
#endif
#include <immintrin.h>

#include <array>
#include <cstdint>

#define KR_AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vnni")))

namespace KR {

namespace {

using Vector = __m512i;
using ByteTable = std::array<std::uint8_t, 64>;

KR_AVX512 inline Vector load(const void* bytes) {
    return _mm512_loadu_si512(bytes);
}

KR_AVX512 inline void store(unsigned char* bytes, Vector vector) {
    prefetchForWriting(bytes);
    _mm512_storeu_si512(bytes, vector);
}

// The same four bytes repeated.
KR_AVX512 inline Vector everyDoubleWord(int a, int b, int c, int d) {
    return _mm512_set1_epi32(
        static_cast<int>((static_cast<unsigned>(d) & 0xFF) << 24 | (static_cast<unsigned>(c) & 0xFF) << 16 |
                         (static_cast<unsigned>(b) & 0xFF) << 8 | (static_cast<unsigned>(a) & 0xFF)));
}

// Keeps the mask in a register: otherwise each iteration would load it, through the port that permutes.
KR_AVX512 inline __mmask64 kept(__mmask64 mask) {
    asm("" : "+Yk"(mask));
    return mask;
}

// ---- from BGR

// Each result is floor(C / 8192), where C is a sum of bytes times 13-bit coefficients. Scaling the
// coefficients by 8 makes it floor(8 * C / 65536). Split into two signed bytes, coefficient * 8 = 256 * high
// + low, they suit the dot product of four bytes: 8 * C is 256 times the sum with the high parts plus the sum
// with the low parts. The fourth byte is green again, as its coefficient 129 for Y does not fit a signed
// byte.
struct Coefficients {
    Vector high, low, offset;
};

// The result is byte 2 of each double word.
KR_AVX512 inline Vector resultsInByte2(Vector pixels, const Coefficients& c) {
    const Vector high = _mm512_dpbusd_epi32(c.offset, pixels, c.high);
    return _mm512_dpbusd_epi32(_mm512_slli_epi32(high, 8), pixels, c.low);
}

// The result is byte 1; here `offset` is scaled by 256.
KR_AVX512 inline Vector resultsInByte1(Vector pixels, const Coefficients& c) {
    const Vector low = _mm512_dpbusd_epi32(c.offset, pixels, c.low);
    return _mm512_dpbusd_epi32(_mm512_srai_epi32(low, 8), pixels, c.high);
}

// B G R G of 16 pixels, starting at byte `from`.
constexpr ByteTable pixelsAt(int from) {
    ByteTable table{};
    for (int i = 0; i < 64; ++i) {
        constexpr int kByte[4] = {0, 1, 2, 1};
        table[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(from + i / 4 * 3 + kByte[i % 4]);
    }
    return table;
}

// Where the bytes of Y0 U Y1 V come from: Y of pixel p from byte 2 of double word p % 16, V from that of its pair.
constexpr ByteTable placesOfResults() {
    ByteTable table{};
    for (int i = 0; i < 64; ++i) {
        const int doubleWord = i % 2 == 0 ? i / 2 % 16 : i / 4;
        table[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(4 * doubleWord + 2);
    }
    return table;
}

KR_AVX512 void yuv422FromBgr(const unsigned char* bgr, unsigned char* yuv, std::size_t pairs) {
    alignas(64) static constexpr ByteTable kLower = pixelsAt(0);
    alignas(64) static constexpr ByteTable kUpper = pixelsAt(16);
    alignas(64) static constexpr ByteTable kPlaces = placesOfResults();
    const Vector lowerPixels = load(&kLower), upperPixels = load(&kUpper), places = load(&kPlaces);
    const Vector even = _mm512_set_epi32(30, 28, 26, 24, 22, 20, 18, 16, 14, 12, 10, 8, 6, 4, 2, 0);
    // 802 * 8 = 25 * 256 + 16, 4130 * 8 = (100 + 29) * 256 + 16, 2104 * 8 = 66 * 256 - 64; the offset is 16.
    const Coefficients y{everyDoubleWord(25, 100, 66, 29), everyDoubleWord(16, 16, -64, 0),
                         _mm512_set1_epi32(16 << 8)};
    // 3598 * 8 = 112 * 256 + 112, -2384 * 8 = -74 * 256 - 128, -1214 * 8 = -38 * 256 + 16; the offset is 128.
    const Coefficients u{everyDoubleWord(112, -74, -38, 0), everyDoubleWord(112, -128, 16, 0),
                         _mm512_set1_epi32(128 << 16)};
    // -585 * 8 = -18 * 256 - 72, -3013 * 8 = -94 * 256 - 40; the rest as with U.
    const Coefficients v{everyDoubleWord(-18, -94, 112, 0), everyDoubleWord(-72, -40, 112, 0),
                         _mm512_set1_epi32(128 << 8)};
    const __mmask64 isLowerY = kept(0x0000000055555555);
    const __mmask64 isUpperY = kept(0x5555555500000000);
    const __mmask64 isV = kept(0x8888888888888888);
    constexpr std::size_t kPairs = 16;
    for (; pairs >= kPairs; pairs -= kPairs, bgr += 6 * kPairs, yuv += 4 * kPairs) {
        const Vector lower = _mm512_permutexvar_epi8(lowerPixels, load(bgr));      // of the pairs 0 to 7
        const Vector upper = _mm512_permutexvar_epi8(upperPixels, load(bgr + 32)); // of the pairs 8 to 15
        const Vector first = _mm512_permutex2var_epi32(lower, even, upper);        // of each pair
        Vector out = resultsInByte1(first, u);
        out = _mm512_mask_permutexvar_epi8(out, isLowerY, places, resultsInByte2(lower, y));
        out = _mm512_mask_permutexvar_epi8(out, isUpperY, places, resultsInByte2(upper, y));
        out = _mm512_mask_permutexvar_epi8(out, isV, places, resultsInByte2(first, v));
        store(yuv, out);
    }
    scalarConversionPath.yuv422FromBgr(bgr, yuv, pairs);
}

// ---- to BGR

// The results are floor(C / 256), limited to 0..255, which is floor(C / 2) shifted right by 7 and limited; and
// floor(C / 2) fits a word except where the result is limited anyway, so additions saturate. With D = U - 128
// and E = V - 128 it is 149 * (Y - 128) + 16688 plus floor(258.5 * D), -104 * D - 50 * E, or floor(204.5 * E).
// Luma takes 13844 of the 16688: as much as fits.
// Here each word is a pair of pixels, whose chroma terms are computed once.
struct ChromaTerms {
    Vector u;                // 256 * D, the better part of blue
    Vector blue, green, red; // each with 2844 = 16688 - 13844 in it
};

KR_AVX512 inline Vector everyWord(int word) {
    return _mm512_set1_epi16(static_cast<short>(word));
}

// \param uv  D and E in bytes
KR_AVX512 inline ChromaTerms chromaTerms(Vector uv) {
    const Vector rest = everyWord(2844);
    const Vector u = _mm512_slli_epi16(uv, 8);
    const Vector v = _mm512_and_si512(uv, everyWord(0xFF00));
    // The high word of a product, which is rounded down: 256 * D * 640 / 65536.
    const Vector blue = _mm512_add_epi16(_mm512_mulhi_epi16(u, everyWord(640)), rest);
    const Vector green = _mm512_sub_epi16(rest, _mm512_maddubs_epi16(everyWord(104 + 256 * 50), uv));
    // A product shifted by 15 and rounded, halves upwards: 256 * E * -26176 / 32768.
    const Vector red = _mm512_sub_epi16(rest, _mm512_mulhrs_epi16(v, everyWord(-26176)));
    return {u, blue, green, red};
}

// In each block of 16 bytes: 8 even pixels, then the 8 odd ones beside them.
KR_AVX512 inline Vector pack(Vector even, Vector odd) {
    return _mm512_packus_epi16(_mm512_srai_epi16(even, 7), _mm512_srai_epi16(odd, 7));
}

// As 3 and 64 have no common factor, one order of the bytes of a plane suits all three vectors of the interleaved
// result: pixel p of plane c goes to place (3 * p + c) % 64.
constexpr ByteTable orderOfPlane(int plane) {
    ByteTable table{};
    for (int pixel = 0; pixel < 64; ++pixel) {
        const int pair = pixel / 2;
        table[static_cast<std::size_t>((3 * pixel + plane) % 64)] =
            static_cast<std::uint8_t>(pair / 8 * 16 + pixel % 2 * 8 + pair % 8);
    }
    return table;
}

// From 32 pairs of YUV422 in two vectors, the bytes with these indices in each pair.
constexpr ByteTable bytesOfPairs(int first, int second) {
    ByteTable table{};
    for (int i = 0; i < 64; ++i) {
        table[static_cast<std::size_t>(i)] =
            static_cast<std::uint8_t>((i / 2 * 4 + (i % 2 == 0 ? first : second)) % 64);
    }
    return table;
}

constexpr __mmask64 kUpperHalf = 0xFFFFFFFF00000000;

KR_AVX512 inline Vector pick(Vector table, Vector lower, Vector upper, __mmask64 upperHalf) {
    return _mm512_mask_permutexvar_epi8(_mm512_permutexvar_epi8(table, lower), upperHalf, table, upper);
}

KR_AVX512 void bgrFromYuv422(const unsigned char* yuv, unsigned char* bgr, std::size_t pairs) {
    alignas(64) static constexpr ByteTable kLuma = bytesOfPairs(0, 2);
    alignas(64) static constexpr ByteTable kChroma = bytesOfPairs(1, 3);
    alignas(64) static constexpr ByteTable kOrder[3] = {orderOfPlane(0), orderOfPlane(1), orderOfPlane(2)};
    const Vector luma = load(&kLuma), chroma = load(&kChroma);
    const Vector order0 = load(&kOrder[0]), order1 = load(&kOrder[1]), order2 = load(&kOrder[2]);
    const Vector center = _mm512_set1_epi8(static_cast<char>(128));
    const Vector evenScale = everyWord(149), oddScale = everyWord(149 * 256);
    const Vector bias = everyWord(13844);
    const __mmask64 upperHalf = kept(kUpperHalf);
    // The places n for which n % 3 is 0, 1 or 2.
    const __mmask64 at0 = kept(0x9249249249249249), at1 = kept(0x2492492492492492),
                    at2 = kept(0x4924924924924924);
    constexpr std::size_t kPairs = 32;
    for (; pairs >= kPairs; pairs -= kPairs, yuv += 4 * kPairs, bgr += 6 * kPairs) {
        const Vector lower = load(yuv), upper = load(yuv + 64);
        const Vector y = _mm512_xor_si512(pick(luma, lower, upper, upperHalf), center);
        const Vector even = _mm512_add_epi16(_mm512_maddubs_epi16(evenScale, y), bias);
        const Vector odd = _mm512_add_epi16(_mm512_maddubs_epi16(oddScale, y), bias);
        const auto terms = chromaTerms(_mm512_xor_si512(pick(chroma, lower, upper, upperHalf), center));
        const Vector blues = pack(_mm512_adds_epi16(_mm512_adds_epi16(even, terms.u), terms.blue),
                                  _mm512_adds_epi16(_mm512_adds_epi16(odd, terms.u), terms.blue));
        const Vector greens = pack(_mm512_adds_epi16(even, terms.green), _mm512_adds_epi16(odd, terms.green));
        const Vector reds = pack(_mm512_adds_epi16(even, terms.red), _mm512_adds_epi16(odd, terms.red));
        const Vector b = _mm512_permutexvar_epi8(order0, blues);
        const Vector g = _mm512_permutexvar_epi8(order1, greens);
        const Vector r = _mm512_permutexvar_epi8(order2, reds);
        store(bgr, _mm512_mask_mov_epi8(_mm512_mask_mov_epi8(b, at1, g), at2, r));
        store(bgr + 64, _mm512_mask_mov_epi8(_mm512_mask_mov_epi8(b, at0, g), at1, r));
        store(bgr + 128, _mm512_mask_mov_epi8(_mm512_mask_mov_epi8(b, at2, g), at0, r));
    }
    scalarConversionPath.bgrFromYuv422(yuv, bgr, pairs);
}

// ---- to planes

KR_AVX512 void planes444FromYuv422(const unsigned char* yuv, unsigned char* y, unsigned char* u,
                                   unsigned char* v, std::size_t pairs) {
    alignas(64) static constexpr ByteTable kY = bytesOfPairs(0, 2);
    alignas(64) static constexpr ByteTable kU = bytesOfPairs(1, 1);
    alignas(64) static constexpr ByteTable kV = bytesOfPairs(3, 3);
    const Vector ys = load(&kY), us = load(&kU), vs = load(&kV);
    const __mmask64 upperHalf = kept(kUpperHalf);
    constexpr std::size_t kPairs = 32;
    for (; pairs >= kPairs;
         pairs -= kPairs, yuv += 4 * kPairs, y += 2 * kPairs, u += 2 * kPairs, v += 2 * kPairs) {
        const Vector lower = load(yuv), upper = load(yuv + 64);
        store(y, pick(ys, lower, upper, upperHalf));
        store(u, pick(us, lower, upper, upperHalf));
        store(v, pick(vs, lower, upper, upperHalf));
    }
    scalarConversionPath.planes444FromYuv422(yuv, y, u, v, pairs);
}

// Of the 16 pairs in a vector: their 32 bytes of Y, then 16 of U and 16 of V.
constexpr ByteTable splitPairs() {
    ByteTable table{};
    for (int i = 0; i < 64; ++i) {
        const int from = i < 32 ? 2 * i : i < 48 ? 4 * (i - 32) + 1 : 4 * (i - 48) + 3;
        table[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(from);
    }
    return table;
}

KR_AVX512 void planes422FromYuv422(const unsigned char* yuv, unsigned char* y, unsigned char* u,
                                   unsigned char* v, std::size_t pairs) {
    alignas(64) static constexpr ByteTable kSplit = splitPairs();
    const Vector split = load(&kSplit);
    constexpr int kLowerHalves = 0x44, kUpperHalves = 0xEE, kEvenQuarters = 0x88, kOddQuarters = 0xDD;
    constexpr std::size_t kPairs = 64;
    for (; pairs >= kPairs; pairs -= kPairs, yuv += 4 * kPairs, y += 2 * kPairs, u += kPairs, v += kPairs) {
        const Vector a = _mm512_permutexvar_epi8(split, load(yuv));
        const Vector b = _mm512_permutexvar_epi8(split, load(yuv + 64));
        const Vector c = _mm512_permutexvar_epi8(split, load(yuv + 128));
        const Vector d = _mm512_permutexvar_epi8(split, load(yuv + 192));
        store(y, _mm512_shuffle_i64x2(a, b, kLowerHalves));
        store(y + 64, _mm512_shuffle_i64x2(c, d, kLowerHalves));
        const Vector ab = _mm512_shuffle_i64x2(a, b, kUpperHalves); // U, V, U, V
        const Vector cd = _mm512_shuffle_i64x2(c, d, kUpperHalves);
        store(u, _mm512_shuffle_i64x2(ab, cd, kEvenQuarters));
        store(v, _mm512_shuffle_i64x2(ab, cd, kOddQuarters));
    }
    scalarConversionPath.planes422FromYuv422(yuv, y, u, v, pairs);
}

constexpr ConversionPath kPath = {"AVX512_VBMI", yuv422FromBgr, bgrFromYuv422, planes444FromYuv422,
                                  planes422FromYuv422};

} // namespace

const ConversionPath* avx512ConversionPath() {
    const bool supported = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                           __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vnni");
    return supported ? &kPath : nullptr;
}

} // namespace KR

#else

namespace KR {

const ConversionPath* avx512ConversionPath() {
    return nullptr;
}

} // namespace KR

#endif
