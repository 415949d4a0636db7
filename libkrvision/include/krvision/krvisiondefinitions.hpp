#pragma once

#include "krplatform/krexport.hpp"

/// The meaning of two small integers that every image carries: a resolution code and a colour-space code.
///
/// The codes travel in image values and in files, so their numbers are fixed. All functions are thread-safe
/// lookups without state; none throws or logs.
namespace KR {

/// \name Resolution codes, in pixels: 4:3
///@{
inline constexpr int k40x30 = 8;       ///< 40x30 pixels
inline constexpr int k80x60 = 7;       ///< 80x60 pixels
inline constexpr int k160x120 = 0;     ///< 160x120 pixels
inline constexpr int k320x240 = 1;     ///< 320x240 pixels
inline constexpr int kQVGA = k320x240; ///< 320x240 pixels
inline constexpr int k640x480 = 2;     ///< 640x480 pixels
inline constexpr int kVGA = k640x480;  ///< 640x480 pixels
inline constexpr int k1280x960 = 3;    ///< 1280x960 pixels
inline constexpr int k2560x1920 = 4;   ///< 2560x1920 pixels
///@}
/// \name 16:9
/// The camera service delivers all; KRImage and vision extractors take 1280x720 and 1920x1080 of these.
///@{
inline constexpr int k80x45 = 12;    ///< 80x45 pixels
inline constexpr int k160x90 = 11;   ///< 160x90 pixels
inline constexpr int k320x180 = 10;  ///< 320x180 pixels
inline constexpr int k640x360 = 9;   ///< 640x360 pixels
inline constexpr int k1280x720 = 5;  ///< 1280x720 pixels
inline constexpr int k1920x1080 = 6; ///< 1920x1080 pixels
///@}
/// \name 32:9, two pictures side by side; neither KRImage nor vision extractors take them
///@{
inline constexpr int k160x45 = 17;   ///< 160x45 pixels
inline constexpr int k320x90 = 16;   ///< 320x90 pixels
inline constexpr int k640x180 = 15;  ///< 640x180 pixels
inline constexpr int k1280x360 = 14; ///< 1280x360 pixels
inline constexpr int k2560x720 = 13; ///< 2560x720 pixels
///@}

/// \name Colour-space codes that the camera service delivers; images may have others, up to 26
///@{
inline constexpr int kLumaColorSpace = 0; ///< 1 byte per pixel: Y
inline constexpr int kYUV422ColorSpace =
    9; ///< 2 bytes per pixel: Y0 U Y1 V for each pair of horizontal neighbours
inline constexpr int kRgbColorSpace = 11;  ///< 3 bytes per pixel: R G B
inline constexpr int kBgrColorSpace = 13;  ///< 3 bytes per pixel: B G R, as OpenCV has them
inline constexpr int kBgrxColorSpace = 18; ///< 4 bytes per pixel: B G R and an unused one
///@}

/// Whether an image can be constructed for this resolution code or set to it: codes 0 to 8. The size table goes up
/// to 17, see setSizeFromResolution.
KR_EXPORT bool isResolutionValid(int resolution) noexcept;

/// The size in pixels of a resolution code, 0 to 17; -1 and -1 for any other code.
KR_EXPORT void setSizeFromResolution(int resolution, int& width, int& height) noexcept;

/// The resolution code, 0 to 17, of exactly this size in pixels; -1 if no code has it.
KR_EXPORT int getResolutionFromSize(int width, int height) noexcept;

/// Whether the colour-space code exists: 0 to 26.
KR_EXPORT bool isColorSpaceValid(int colorSpace) noexcept;

/// Bytes stored per pixel, from which buffers are sized; -1 for an invalid code.
KR_EXPORT int getNumLayersInColorSpace(int colorSpace) noexcept;

/// Colour components per pixel, of one or more bytes each; -1 for an invalid code.
KR_EXPORT int getNumChannelsInColorSpace(int colorSpace) noexcept;

} // namespace KR
