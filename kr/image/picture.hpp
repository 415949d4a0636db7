#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace KR::tool {

/// What the header of a picture file says.
struct PictureHeader {
    int width = 0;           ///< pixels
    int height = 0;          ///< pixels
    bool isGrey = false;     ///< R, G and B of each pixel are equal, and a file needs only one of them
    const char* format = ""; ///< of the file that it was read from: "png", "jpeg", "ppm" or "pgm"
};

/// A picture as other programs know it.
struct Picture : PictureHeader {
    std::vector<unsigned char> rgb; ///< `3 * width * height` bytes, R G B per pixel, no padding
};

/// Whether writePicture() supports the extension: ".ppm", ".png", ".jpg" or ".jpeg".
bool isPictureExtension(const std::string& extension);

/// Reads the header of a ppm, pgm, png or jpeg file, whatever its extension, and checks that the file is not cut. The
/// pixels are not decoded.
/// \throws std::runtime_error with the path
PictureHeader readPictureHeader(const std::string& path);

/// Reads a ppm, pgm, png or jpeg file, whatever its extension. Transparent pixels are blended with black. A file that
/// is too short for its pixels is refused before memory is allocated.
/// \throws std::runtime_error with the path
Picture readPicture(const std::string& path);

/// Writes a picture in the format of the path's extension.
/// \param quality  of a jpeg, 1 to 100
/// \throws std::runtime_error with the path
void writePicture(const Picture& picture, const std::string& path, int quality = 90);

/// \name The formats one by one; they throw std::runtime_error without the path
///@{
PictureHeader readPngHeader(const std::string& path);
PictureHeader readJpegHeader(const std::string& path);
PictureHeader readPpmHeader(const std::string& path);
Picture readPng(const std::string& path);
Picture readJpeg(const std::string& path);
Picture readPpm(const std::string& path);
void writePng(const Picture& picture, const std::string& path);
void writeJpeg(const Picture& picture, const std::string& path, int quality);
void writePpm(const Picture& picture, const std::string& path);
///@}

/// Sets the size of a picture without allocating pixels.
/// \throws std::runtime_error there cannot be a picture of that size
void setSize(PictureHeader& picture, std::uint64_t width, std::uint64_t height);
/// Allocates the pixels.
void allocatePixels(Picture& picture);

} // namespace KR::tool
