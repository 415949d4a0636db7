#pragma once

#include <krplatform/krvalue.hpp>

#include <gst/video/video.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// The layout of images of a resolution and colour space: dense rows, GStreamer's default offsets.
/// Empty for a resolution or colour space that the camera service does not deliver.
std::optional<GstVideoInfo> getImageInfo(int resolution, int colorSpace);

bool isResolutionSupported(int resolution) noexcept;
bool isColorSpaceSupported(int colorSpace) noexcept;

/// "0 (luma), 9 (YUV422), ...".
std::string listColorSpaces();

/// Scales and converts images, keeping what that needs from one image to the next. Thread-safe.
class KRConverter {
public:
    KRConverter();
    ~KRConverter();
    KRConverter(const KRConverter&) = delete;
    KRConverter& operator=(const KRConverter&) = delete;

    /// The whole of `image` in a resolution and colour space that are supported.
    /// \throws std::runtime_error  GStreamer cannot convert from this layout
    KRBinary convert(const GstVideoFrame& image, int resolution, int colorSpace);

private:
    class Conversion;
    class Buffers;

    std::unique_ptr<Conversion> take(const GstVideoInfo& in, int resolution, int colorSpace);
    void giveBack(std::unique_ptr<Conversion> conversion);

    const std::shared_ptr<Buffers> buffers_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Conversion>> idle_; ///< guarded by mutex_, least recently used first
};

} // namespace KR
