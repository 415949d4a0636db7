#include "recording/krrecording.hpp"

#include "conversion/krconverter.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krthread.hpp>
#include <krvision/krimage.hpp>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KR {

namespace {

using std::chrono::steady_clock;

constexpr std::size_t headerBytesInPixels = 25;
constexpr std::uint64_t addressableBytes = std::uint64_t{1} << 32;
constexpr std::chrono::microseconds usualStep(33333);
constexpr std::chrono::milliseconds pullTimeout(50);

// Bytes between the last stream header and the first frame.
std::uint64_t readExtraHeaderSize(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    unsigned char bytes[8] = {};
    file.read(reinterpret_cast<char*>(bytes), sizeof bytes);
    return bytes[4] | bytes[5] << 8 | bytes[6] << 16 | std::uint64_t{bytes[7]} << 24;
}

// The header counts chunks if there are several streams, and holds no number if the recording was never closed.
std::uint32_t countFrames(const std::string& path, const KRVideo& video) {
    std::error_code error;
    const std::uint64_t size =
        std::min<std::uint64_t>(std::filesystem::file_size(path, error), addressableBytes);
    std::uint64_t frameSize = 0;
    for (const streamProperties& stream : video.getStreams()) {
        frameSize += stream.chunkSize;
    }
    const std::uint64_t begin = 16 + 16 * video.getStreams().size() + readExtraHeaderSize(path);
    if (error || size < begin || frameSize == 0) {
        return 0;
    }
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(video.getFrameCount(), (size - begin) / frameSize));
}

} // namespace

KRRecording::KRRecording(const std::string& path, int stream) : stream_(static_cast<unsigned>(stream)) {
    try {
        video_.readVideo(path);
    } catch (const KRError& error) {
        throw std::runtime_error(error.getDescription());
    }
    const std::size_t streams = video_.getStreams().size();
    if (stream_ >= streams) {
        throw std::runtime_error("there is no stream " + std::to_string(stream) + " in it; it has " +
                                 std::to_string(streams));
    }
    const streamProperties& properties = video_.getStreams()[stream_];
    resolution_ = static_cast<int>(properties.resolution);
    colorSpace_ = static_cast<int>(properties.colorSpace);
    const std::optional<GstVideoInfo> info = getImageInfo(resolution_, colorSpace_);
    if (!info || properties.depth != 8) {
        throw std::runtime_error("its images are of colour space " + std::to_string(colorSpace_) + " and " +
                                 std::to_string(properties.depth) + " bits; supported are 8 bits and " +
                                 listColorSpaces());
    }
    info_ = *info;
    frameCount_ = countFrames(path, video_);
    if (frameCount_ == 0) {
        throw std::runtime_error("there is no image in it");
    }
}

KRCapture KRRecording::read(std::uint32_t frame) {
    KRImage image(resolution_, colorSpace_, false, 0, 0, 0, 0);
    if (!video_.getFrame(image, frame, stream_, true)) {
        throw std::runtime_error("image " + std::to_string(frame) + " of the recording cannot be read");
    }
    std::memcpy(image.data.get(), image.data.get() + GST_VIDEO_INFO_PLANE_STRIDE(&info_, 0),
                headerBytesInPixels);
    KRCapture capture;
    capture.info = info_;
    const std::size_t size = GST_VIDEO_INFO_SIZE(&info_);
    using Pixels = boost::shared_ptr<unsigned char[]>;
    capture.buffer.reset(gst_buffer_new_wrapped_full(
        GST_MEMORY_FLAG_READONLY, image.data.get(), size, 0, size, new Pixels(image.data),
        [](gpointer pixels) { delete static_cast<Pixels*>(pixels); }));
    capture.captureTime_usec = image.timeStamp;
    capture.taken = steady_clock::now();
    capture.angles = {image.leftAngle, image.topAngle, image.rightAngle, image.bottomAngle};
    return capture;
}

KRRecordingPlayer::KRRecordingPlayer(const std::string& path, int stream)
    : recording_(path, stream), due_(steady_clock::now()) {
    readNext();
}

std::optional<KRCapture> KRRecordingPlayer::pull() {
    const auto now = steady_clock::now();
    sleepUntil(std::min<steady_clock::time_point>(due_, now + pullTimeout));
    if (due_ > now + pullTimeout) {
        return std::nullopt;
    }
    KRCapture shown = std::move(capture_);
    shown.taken = due_;
    lastTime_usec_ = shown.captureTime_usec;
    readNext();
    const std::chrono::microseconds step(capture_.captureTime_usec - lastTime_usec_);
    due_ += step.count() > 0 ? step : usualStep;
    return shown;
}

void KRRecordingPlayer::readNext() {
    capture_ = recording_.read(next_);
    next_ = (next_ + 1) % recording_.getFrameCount();
}

} // namespace KR
