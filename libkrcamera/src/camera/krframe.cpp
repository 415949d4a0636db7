#include "camera/krframe.hpp"

#include "conversion/krconverter.hpp"

#include <stdexcept>

namespace KR {

namespace {

// Unknown colorimetry counts as the wanted one. Grey images are passed on unchanged.
bool hasSameColors(const GstVideoInfo& delivered, const GstVideoInfo& wanted) noexcept {
    const GstVideoColorimetry& a = delivered.colorimetry;
    const GstVideoColorimetry& b = wanted.colorimetry;
    return !GST_VIDEO_INFO_IS_YUV(&wanted) ||
           ((a.range == b.range || a.range == GST_VIDEO_COLOR_RANGE_UNKNOWN) &&
            (a.matrix == b.matrix || a.matrix == GST_VIDEO_COLOR_MATRIX_UNKNOWN));
}

} // namespace

struct KRFrame::Mapping {
    Mapping(const GstHandle<GstBuffer>& buffer, GstVideoInfo info) {
        if (!gst_video_frame_map(&frame, &info, buffer.get(), GST_MAP_READ)) { // keeps a reference
            throw std::runtime_error("an image of the camera cannot be read");
        }
    }
    ~Mapping() { gst_video_frame_unmap(&frame); }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    GstVideoFrame frame;
};

KRFrame::KRFrame(std::uint64_t number, const KRCapture& capture, std::shared_ptr<KRConverter> converter)
    : number_(number), captureTime_usec_(capture.captureTime_usec), taken_(capture.taken),
      angles_(capture.angles), mapping_(new Mapping(capture.buffer, capture.info)),
      converter_(std::move(converter)) {}

KRFrame::~KRFrame() = default;

int KRFrame::getWidth() const noexcept {
    return mapping_->frame.info.width;
}

int KRFrame::getHeight() const noexcept {
    return mapping_->frame.info.height;
}

KRBinary KRFrame::getPixels(int resolution, int colorSpace) {
    const std::optional<GstVideoInfo> wanted = getImageInfo(resolution, colorSpace);
    if (!wanted) {
        throw std::runtime_error("resolution " + std::to_string(resolution) + " or colour space " +
                                 std::to_string(colorSpace) + " is not supported");
    }
    if (isDelivered(*wanted)) {
        const auto* bytes =
            static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&mapping_->frame, 0));
        return {boost::shared_ptr<const unsigned char[]>(mapping_, bytes), GST_VIDEO_INFO_SIZE(&*wanted)};
    }
    std::shared_ptr<Converted> converted;
    {
        const KRLock lock(mutex_);
        std::shared_ptr<Converted>& entry = converted_[{resolution, colorSpace}];
        if (!entry) {
            entry = std::make_shared<Converted>();
        }
        converted = entry;
    }
    const KRLock lock(converted->mutex);
    if (!converted->done) {
        converted->pixels = converter_->convert(mapping_->frame, resolution, colorSpace);
        converted->done = true;
    }
    return converted->pixels;
}

bool KRFrame::isDelivered(const GstVideoInfo& wanted) const noexcept {
    const GstVideoFrame& frame = mapping_->frame;
    return frame.info.finfo == wanted.finfo && frame.info.width == wanted.width &&
           frame.info.height == wanted.height &&
           GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0) == GST_VIDEO_INFO_PLANE_STRIDE(&wanted, 0) &&
           hasSameColors(frame.info, wanted);
}

} // namespace KR
