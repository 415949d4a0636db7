#include "recording/krrecording.hpp"

#include "conversion/krconverter.hpp"
#include "recording/krimagecapture.hpp"

#include <krvision/krimage.hpp>

#include <algorithm>
#include <cassert>
#include <optional>
#include <stdexcept>

namespace KR {

namespace {

// The layout of the stream's images; nullopt if the camera service does not support it.
std::optional<GstVideoInfo> getInfo(const KROxvStream& stream) {
    return stream.depth == 8 ? findImageInfo(static_cast<int>(stream.width), static_cast<int>(stream.height),
                                             static_cast<int>(stream.colorSpace))
                             : std::nullopt;
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
    assert(GST_VIDEO_INFO_SIZE(&info_) == file_.getStreams()[stream_].chunkSize);
    return makeCapture(image, info_);
}

} // namespace KR
