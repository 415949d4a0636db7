#pragma once

#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>

#include <gst/video/video.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// The layout of images of a resolution and colour space: rows without padding, GStreamer's default offsets. Empty if
/// the camera service does not support the resolution or colour space.
std::optional<GstVideoInfo> getImageInfo(int resolution, int colorSpace);

bool isResolutionSupported(int resolution) noexcept;
bool isColorSpaceSupported(int colorSpace) noexcept;

/// "0 (luma), 9 (YUV422), ...".
std::string listColorSpaces();

/// Scales and converts images. Keeps converters and buffers for the next image. Thread-safe.
class KRConverter {
public:
    KRConverter();
    ~KRConverter();
    KRConverter(const KRConverter&) = delete;
    KRConverter& operator=(const KRConverter&) = delete;

    /// The whole of `image` in a supported resolution and colour space.
    /// \throws std::runtime_error  GStreamer cannot convert from this layout
    /// \throws std::bad_alloc
    KRBinary convert(const GstVideoFrame& image, int resolution, int colorSpace);

private:
    class Conversion;
    class Buffers;

    std::unique_ptr<Conversion> take(const GstVideoInfo& in, int resolution, int colorSpace);
    void giveBack(std::unique_ptr<Conversion> conversion);

    const std::shared_ptr<Buffers> buffers_;
    KRMutex mutex_;
    std::vector<std::unique_ptr<Conversion>> idle_ KR_GUARDED_BY(mutex_); ///< least recently used first
};

} // namespace KR
