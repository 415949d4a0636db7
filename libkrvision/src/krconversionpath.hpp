#pragma once

#include "krplatform/krexport.hpp"

#include <cstddef>
#include <vector>

namespace KR {

/// One implementation of the pixel conversions; all implementations give the same bytes.
///
/// Each converts `pairs` consecutive pairs of pixels and touches no other bytes: 4 per pair in YUV422 (Y0 U Y1 V), 6
/// in BGR (B0 G0 R0 B1 G1 R1); in the planes 2 of `y`, and of `u` and `v` 2 each at 4:4:4 or 1 each at 4:2:2.
/// Addresses need no alignment; source and destination must not overlap. Thread-safe.
struct ConversionPath {
    const char* name; ///< "scalar", or the required instruction set, e.g. "AVX2"
    void (*yuv422FromBgr)(const unsigned char* bgr, unsigned char* yuv, std::size_t pairs);
    void (*bgrFromYuv422)(const unsigned char* yuv, unsigned char* bgr, std::size_t pairs);
    void (*planes444FromYuv422)(const unsigned char* yuv, unsigned char* y, unsigned char* u,
                                unsigned char* v, std::size_t pairs);
    void (*planes422FromYuv422)(const unsigned char* yuv, unsigned char* y, unsigned char* u,
                                unsigned char* v, std::size_t pairs);
};

/// The formulas as they stand, one pair at a time: the reference for all other implementations.
extern const ConversionPath scalarConversionPath;

/// The vector implementations that this processor can run, fastest first.
std::vector<const ConversionPath*> vectorConversionPaths();

/// The implementation for AVX-512 with VBMI and VNNI; null if this processor lacks them.
const ConversionPath* avx512ConversionPath();

/// All implementations that this processor can run, fastest first, the scalar one last. For tests.
KR_EXPORT std::vector<const ConversionPath*> conversionPaths();

/// The implementation that KRImage uses: the fastest unless a test forces another.
KR_EXPORT const ConversionPath& conversionPath();

/// Makes KRImage use this implementation in all threads; null restores the fastest. For tests.
KR_EXPORT void forceConversionPath(const ConversionPath* path);

} // namespace KR
