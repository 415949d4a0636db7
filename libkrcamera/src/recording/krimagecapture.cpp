#include "recording/krimagecapture.hpp"

#include "conversion/krconverter.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

namespace KR {

std::optional<GstVideoInfo> findImageInfo(int width, int height, int colorSpace) {
    return getImageInfo(getResolutionFromSize(width, height), colorSpace);
}

KRCapture makeCapture(const KRImage& image, const GstVideoInfo& info) {
    KRCapture capture;
    capture.info = info;
    const std::size_t size = GST_VIDEO_INFO_SIZE(&info);
    using Pixels = boost::shared_ptr<unsigned char[]>;
    capture.buffer.reset(gst_buffer_new_wrapped_full(
        GST_MEMORY_FLAG_READONLY, image.data.get(), size, 0, size, new Pixels(image.data),
        [](gpointer pixels) { delete static_cast<Pixels*>(pixels); }));
    capture.captureTime_usec = image.timeStamp;
    capture.taken = std::chrono::steady_clock::now();
    capture.angles = {image.leftAngle, image.topAngle, image.rightAngle, image.bottomAngle};
    return capture;
}

} // namespace KR
