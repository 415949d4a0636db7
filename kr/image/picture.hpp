#pragma once

#include <string>
#include <vector>

namespace KR::tool {

/// A picture as other programs have it.
struct Picture {
    int width = 0;           ///< pixels
    int height = 0;          ///< pixels
    bool isGrey = false;     ///< R, G and B of each pixel are the same, and a file needs but one of them
    const char* format = ""; ///< of the file that it was read from: "png", "jpeg", "ppm" or "pgm"
    std::vector<unsigned char> rgb; ///< `3 * width * height` bytes, R G B per pixel, no padding
};

/// Whether writePicture() knows the extension: ".ppm", ".png", ".jpg" or ".jpeg".
bool isPictureExtension(const std::string& extension);

/// Reads a ppm, pgm, png or jpeg file, whatever its extension. What is transparent is shown on black.
/// \throws std::runtime_error with the path
Picture readPicture(const std::string& path);

/// Writes a picture in the format that the extension of the path says.
/// \param quality  of a jpeg, 1 to 100
/// \throws std::runtime_error with the path
void writePicture(const Picture& picture, const std::string& path, int quality = 90);

/// \name The formats one by one; they throw std::runtime_error without the path
///@{
Picture readPng(const std::string& path);
Picture readJpeg(const std::string& path);
Picture readPpm(const std::string& path);
void writePng(const Picture& picture, const std::string& path);
void writeJpeg(const Picture& picture, const std::string& path, int quality);
void writePpm(const Picture& picture, const std::string& path);
///@}

/// Makes room for the pixels.
/// \throws std::runtime_error a picture of that size is too large
void resize(Picture& picture, unsigned long long width, unsigned long long height);

} // namespace KR::tool
