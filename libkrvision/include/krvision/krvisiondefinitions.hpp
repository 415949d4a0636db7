#pragma once

#include "krplatform/krexport.hpp"

/// What the two small integers mean that every image carries: a resolution code and a colour-space code.
///
/// The codes travel in image values and in files, so their numbers are fixed. All functions here are
/// thread-safe look-ups without state; none of them throws or logs.
namespace KR {

// The codes that the library itself speaks of; the others belong to the camera service.
inline constexpr int kQVGA = 1; ///< 320x240
inline constexpr int kVGA = 2;  ///< 640x480
/// One byte per pixel: the luma.
inline constexpr int kLumaColorSpace = 0;
/// Two bytes per pixel, Y0 U Y1 V for each pair of pixels that lie side by side.
inline constexpr int kYUV422ColorSpace = 9;
/// \name Colour spaces of the camera service, bytes per pixel in the order of their names
///@{
inline constexpr int kRgbColorSpace = 11;
inline constexpr int kBgrColorSpace = 13;
inline constexpr int kBgrxColorSpace = 18; ///< the fourth byte is unused
///@}

/// Whether images can be made for this resolution code or set to it: the codes 0 to 8. The size table goes up
/// to 17, see setSizeFromResolution.
KR_EXPORT bool isResolutionValid(int resolution) noexcept;

/// The size in pixels of a resolution code, 0 to 17; -1 and -1 for any other code.
KR_EXPORT void setSizeFromResolution(int resolution, int& width, int& height) noexcept;

/// The resolution code, 0 to 17, of exactly this size in pixels; -1 if there is none.
KR_EXPORT int getResolutionFromSize(int width, int height) noexcept;

/// Whether there is such a colour-space code: 0 to 26.
KR_EXPORT bool isColorSpaceValid(int colorSpace) noexcept;

/// Bytes stored per pixel, which is what sizes buffers; -1 for a code that is not valid.
KR_EXPORT int getNumLayersInColorSpace(int colorSpace) noexcept;

/// Colour components per pixel, of one byte or more each; -1 for a code that is not valid.
KR_EXPORT int getNumChannelsInColorSpace(int colorSpace) noexcept;

} // namespace KR
