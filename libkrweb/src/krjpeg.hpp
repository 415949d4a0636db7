#pragma once

#include <krvision/krimage.hpp>

#include <memory>
#include <string>

namespace KR::web {

/// Encodes images as JPEG: luma as a grey picture, all others in colour with one colour for each 2x2 pixels. YUV422 is
/// taken for BT.601 with Y from 16 to 235, as the camera service delivers it. Keeps its buffers. Thread-bound.
class JpegEncoder {
public:
    JpegEncoder();
    ~JpegEncoder();
    JpegEncoder(const JpegEncoder&) = delete;
    JpegEncoder& operator=(const JpegEncoder&) = delete;

    /// Appends the picture to `bytes`.
    /// \param image  with pixels for its geometry
    /// \param quality  1 to 100
    /// \throws std::invalid_argument a colour space that the camera service does not deliver; a size below 1 or above 65500
    /// \throws std::runtime_error the library failed
    void append(std::string& bytes, const KRImage& image, int quality);

private:
    struct Codec;
    std::unique_ptr<Codec> codec_;
};

} // namespace KR::web
