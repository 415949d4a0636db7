// KRVideo::readVideo on any bytes, followed by every frame operation, and the checked reader on the same file. The last
// bytes of the input also choose the operations. Short inputs are padded with zeros, so that the fuzzer can vary headers
// alone and still find frames.

#include "memoryfile.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/kroxvrepair.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace {

using KR::KRImage;
using KR::KRVideo;

KRImage makeImage(int width, int height, bool isEmpty) {
    return {width, height, KR::kLumaColorSpace, isEmpty, 0.0f, 0.0f, 0.0f, 0.0f};
}

/// Every kind of image that a caller may pass.
class Images {
public:
    explicit Images(std::size_t largestChunk) : pixels_(std::max<std::size_t>(largestChunk, 160 * 120)) {
        external_.data = KRImage::externalData(pixels_.data());
    }
    KRImage& choose(std::uint8_t operation) {
        KRImage* const images[] = {&small_, &large_, &none_, &external_};
        return *images[operation >> 3 & 3];
    }

private:
    std::vector<unsigned char> pixels_; // as large as an external image promises: its geometry, and the chunk
    KRImage small_ = makeImage(1, 1, false);
    KRImage large_ = makeImage(640, 480, false);
    KRImage none_ = makeImage(160, 120, true);
    KRImage external_ = makeImage(160, 120, true);
};

void operate(KRVideo& video, Images& images, std::uint8_t operation) {
    const unsigned frame = operation >> 5;
    const unsigned last = video.getFrameCount() - 1;
    const unsigned stream = operation >> 6;
    const bool adapt = (operation & 4) != 0;
    KRImage& image = images.choose(operation);
    switch (operation & 3) {
    case 0:
        video.goToFrame((operation & 16) != 0 ? last - frame : frame, stream);
        break;
    case 1:
        video.getFrame(image, (operation & 16) != 0 ? last - frame : frame, stream, adapt);
        break;
    case 2:
        video.getNextFrame(image, adapt);
        break;
    default:
        video.getPrecedingFrame(image, adapt);
        break;
    }
}

void readChecked(const MemoryFile& file) {
    constexpr std::uint64_t kMostFrames = 4;
    try {
        const KR::KROxvFile recording(file.getPath());
        const std::uint64_t frames = recording.countCompleteFrames();
        if (recording.countExpectedFrames() < frames || recording.countAddressableFrames() > frames ||
            (frames > 0 && recording.getOffset(frames) > recording.getFileSize())) {
            std::abort();
        }
        if (frames < 16 * kMostFrames) {
            findProblems(recording);
        }
        recording.requireFrames();
        if (!recording.hasFrames()) {
            std::abort();
        }
        for (std::size_t stream = 0; stream < recording.getStreams().size() && frames > 0; ++stream) {
            KRImage image = recording.makeImage(stream);
            for (std::uint64_t frame = 0; frame < std::min(frames, kMostFrames); ++frame) {
                recording.readImage(image, frame, stream);
                recording.readImage(image, frames - 1 - frame, stream);
            }
        }
    } catch (const std::runtime_error&) {
        return; // a problem of the file
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kShort = 1024;
    constexpr std::size_t kExtended = 100000;
    std::vector<std::uint8_t> bytes(data, data + size);
    bytes.resize(size < kShort ? kExtended : size);
    const MemoryFile file(bytes.data(), bytes.size());
    readChecked(file);
    KRVideo video;
    try {
        video.readVideo(file.getPath());
    } catch (const KR::KRError&) {
        return 0;
    }
    std::size_t largestChunk = 0;
    for (const KR::streamProperties& stream : video.getStreams()) {
        largestChunk = std::max<std::size_t>(largestChunk, stream.chunkSize);
    }
    constexpr std::size_t kMostMemory = std::size_t{1}
                                        << 24; // some depths need gigabytes, which no caller has
    if (largestChunk > kMostMemory) {
        KRImage image = makeImage(1, 1, false);
        video.getFrame(image, 0, 0, true);
        video.getNextFrame(image, true);
        return 0;
    }
    Images images(largestChunk);
    constexpr std::size_t kMostOperations = 24;
    for (std::size_t i = 0; i < std::min(size, kMostOperations); ++i) {
        operate(video, images, data[size - 1 - i]);
    }
    video.closeVideo();
    KRImage image = makeImage(1, 1, false);
    video.getNextFrame(image, true);
    return 0;
}
