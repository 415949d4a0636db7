#pragma once

#include "krplatform/krexport.hpp"

/// The meaning of two small integers that every image carries: a resolution code and a colour-space code.
///
/// The codes travel in image values and in files, so their numbers are fixed. All functions are thread-safe
/// lookups without state; none throws or logs.
namespace KR {

// Only codes that this project refers to have names.
inline constexpr int kQVGA = 1; ///< 320x240
inline constexpr int kVGA = 2;  ///< 640x480
/// One byte per pixel: the luma.
inline constexpr int kLumaColorSpace = 0;
/// Two bytes per pixel: Y0 U Y1 V for each pair of horizontal neighbours.
inline constexpr int kYUV422ColorSpace = 9;
/// \name Colour spaces of the camera service, bytes per pixel in the order of their names
///@{
inline constexpr int kRgbColorSpace = 11;
inline constexpr int kBgrColorSpace = 13;
inline constexpr int kBgrxColorSpace = 18; ///< the fourth byte is unused
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
