#include "recording/krrecording.hpp"

#include "conversion/krconverter.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cassert>
#include <optional>
#include <stdexcept>

namespace KR {

namespace {

// The stream's images as the camera service delivers them; nullopt if it does not.
std::optional<GstVideoInfo> getInfo(const KROxvStream& stream) {
    const auto width = static_cast<int>(stream.width);
    const auto height = static_cast<int>(stream.height);
    const int resolution = getResolutionFromSize(width, height);
    return stream.depth == 8 ? getImageInfo(resolution, static_cast<int>(stream.colorSpace)) : std::nullopt;
}

} // namespace

KRRecording::KRRecording(const std::string& path, int stream)
    : file_(path), stream_(static_cast<std::size_t>(stream)) {
    file_.requireFrames();
    const std::size_t streams = file_.getStreams().size();
    if (stream_ >= streams) {
        throw std::runtime_error("there is no stream " + std::to_string(stream) + " in it; it has " +
                                 std::to_string(streams));
    }
    const KROxvStream& properties = file_.getStreams()[stream_];
    const std::optional<GstVideoInfo> info = getInfo(properties);
    if (!info) {
        throw std::runtime_error(
            "its images are " + std::to_string(properties.width) + "x" + std::to_string(properties.height) +
            " pixels of colour space " + std::to_string(properties.colorSpace) + " and " +
            std::to_string(properties.depth) +
            " bits; supported are the sizes of the resolutions 0 to 17, 8 bits and " + listColorSpaces());
    }
    info_ = *info;
    frameCount_ = std::min(file_.countCompleteFrames(), file_.countExpectedFrames());
    if (frameCount_ == 0) {
        throw std::runtime_error("there is no image in it");
    }
}

KRCapture KRRecording::read(std::uint64_t frame) const {
    KRImage image = file_.makeImage(stream_);
    file_.readImage(image, frame, stream_);
    KRCapture capture;
    capture.info = info_;
    const std::size_t size = GST_VIDEO_INFO_SIZE(&info_);
    assert(size == file_.getStreams()[stream_].chunkSize);
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
