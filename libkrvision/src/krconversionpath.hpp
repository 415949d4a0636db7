#pragma once

#include "krplatform/krexport.hpp"

#include <cstddef>
#include <vector>

namespace KR {

/// One implementation of the pixel conversions; all of them give the same bytes.
///
/// Each works on `pairs` pairs of pixels that lie side by side, and touches nothing but those: 4 bytes per pair
/// of YUV422 (Y0 U Y1 V), 6 of BGR (B0 G0 R0 B1 G1 R1); in the planes 2 of `y`, and 2 of `u` and `v` each at
/// 4:4:4, 1 at 4:2:2. No address needs an alignment; source and destination do not overlap. Thread-safe.
struct ConversionPath {
    const char* name; ///< "scalar", or the instruction set that it needs, e.g. "AVX2"
    void (*yuv422FromBgr)(const unsigned char* bgr, unsigned char* yuv, std::size_t pairs);
    void (*bgrFromYuv422)(const unsigned char* yuv, unsigned char* bgr, std::size_t pairs);
    void (*planes444FromYuv422)(const unsigned char* yuv, unsigned char* y, unsigned char* u,
                                unsigned char* v, std::size_t pairs);
    void (*planes422FromYuv422)(const unsigned char* yuv, unsigned char* y, unsigned char* u,
                                unsigned char* v, std::size_t pairs);
};

/// The formulas as they stand, one pair at a time: what all the others are tested against.
extern const ConversionPath scalarConversionPath;

/// The implementations of one vector source that this processor can run, the fastest first.
std::vector<const ConversionPath*> vectorConversionPaths();

/// The one for AVX-512 with VBMI and VNNI; null if this processor does not have them.
const ConversionPath* avx512ConversionPath();

/// All implementations that this processor can run, the fastest first and the scalar one last. For tests.
KR_EXPORT std::vector<const ConversionPath*> conversionPaths();

/// The implementation that KRImage uses: the fastest, unless a test has forced another.
KR_EXPORT const ConversionPath& conversionPath();

/// Makes KRImage use this implementation, in all threads; null: the fastest again. For tests.
KR_EXPORT void forceConversionPath(const ConversionPath* path);

} // namespace KR
