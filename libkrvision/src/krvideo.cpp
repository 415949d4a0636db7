#include "krvision/krvideo.hpp"

#include "krfile.hpp"
#include "krownedbytes.hpp"
#include "kroxvlayout.hpp"
#include "krplatform/krerror.hpp"
#include "krvision/krdefaultangles.hpp"
#include "krvision/kroxvfile.hpp"
#include "krvision/krvisiondefinitions.hpp"
#include "krwrappingproduct.hpp"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>
#include <utility>

namespace KR {

namespace {

std::uint32_t dataOffsetOf(std::uint32_t streams, std::uint32_t extraHeaderSize) {
    return static_cast<std::uint32_t>(sizeof(oxv::FileHeader) + sizeof(streamHeader) * streams) +
           extraHeaderSize;
}

} // namespace

/// The open files and the position of the reader. Reentrant.
class KRVideoPrivate {
public:
    /// The places that the four angles are read from.
    enum class Angles { AsWritten, OneByteApart };

    std::vector<streamProperties> readStreams(std::uint32_t count) const;
    void moveTo(unsigned int frame, unsigned int stream);
    /// Offset of the current frame's chunk of the current stream; wraps at 32 bits.
    std::uint32_t offsetOfChunk() const;
    std::uint32_t chunkSize() const {
        assert(currentStream < streams.size());
        return streams[currentStream].chunkSize;
    }

    /// Prepares the image for the current stream's chunk. \return whether the chunk can be read into it
    bool prepare(KRImage& image, bool adapt) const;
    bool fit(KRImage& image) const;
    /// Reads the chunk at `position` and advances that past it.
    void readChunk(KRImage& image, Angles angles);

    /// An image that allocates its buffer at the first conversion.
    static KRImage makeUnsizedImage();
    void writeChunk(const KROxvChunkHeader& header, const void* image, int size);

    bool isReading = false; // then there is at least one stream
    bool isRecording = false;
    KRFile input;
    KRFile output;
    std::string path;                      // of the file opened last; so are the next two
    std::uint32_t version = 0;             // first word of the input file
    std::uint32_t frameCount = 0;          // while recording: chunks written
    std::uint32_t dataOffset = 0;          // of the first frame
    std::uint32_t frameSize = 0;           // bytes of all chunks of a frame
    std::vector<streamProperties> streams; // of the input file
    std::uint32_t currentStream = 0;
    std::uint32_t currentFrame = 0;
    std::uint64_t position = 0;             // in the input file
    KRImage converted = makeUnsizedImage(); // from the last BGR frame
};

KRVideo::KRVideo() : p_(std::make_unique<KRVideoPrivate>()) {}
KRVideo::~KRVideo() = default;

// ---- reading

// Streams are read one by one: the count in the file may be anything and must not size an allocation.
std::vector<streamProperties> KRVideoPrivate::readStreams(std::uint32_t count) const {
    std::vector<streamProperties> found;
    for (std::uint32_t i = 0; i < count; ++i) {
        streamHeader header = {};
        const bool isComplete = input.readAt(&header, sizeof header,
                                             sizeof(oxv::FileHeader) + sizeof header * i) == sizeof header;
        const int resolution =
            getResolutionFromSize(static_cast<int>(header.width), static_cast<int>(header.height));
        if (!isComplete || resolution < 0 || resolution > kVGA) {
            throw KRError("KRVideo", "readVideo", "Unsupported resolution");
        }
        if (header.colorSpace >= oxv::kColorSpaces) {
            throw KRError("KRVideo", "readVideo", "invalid color space");
        }
        const auto layers =
            static_cast<std::uint32_t>(getNumLayersInColorSpace(static_cast<int>(header.colorSpace)));
        found.push_back({header.width, header.height, static_cast<std::uint32_t>(resolution),
                         header.colorSpace, layers, header.depth,
                         (header.height * header.width * layers * header.depth) >> 3});
    }
    return found;
}

bool KRVideo::readVideo(std::string path) {
    KRVideoPrivate& p = *p_;
    p.isReading = false;
    p.path = std::move(path);
    if (!p.input.openToRead(p.path)) {
        throw KRError("KRVideo", "readVideo", "Can't open file " + p.path + ". Check its path and presence");
    }
    oxv::FileHeader header = {};
    p.input.readAt(&header, sizeof header, 0);
    try {
        if (header.version != oxv::kVersion1 && header.version != oxv::kVersion0) {
            throw KRError("KRVideo", "readVideo", "This oxv file version isn't supported");
        }
        p.streams = p.readStreams(std::max(header.streams, std::uint32_t{1}));
    } catch (...) {
        p.input.close();
        throw;
    }
    const auto streamCount = static_cast<std::uint32_t>(p.streams.size());
    p.version = header.version;
    p.frameCount = header.frames;
    p.dataOffset = dataOffsetOf(streamCount, header.extraHeaderSize);
    p.frameSize = 0;
    for (const streamProperties& stream : p.streams) {
        p.frameSize += stream.chunkSize;
    }
    p.currentStream = 0;
    p.position = sizeof(oxv::FileHeader) + sizeof(streamHeader) * std::uint64_t{streamCount};
    p.isReading = true;
    return true;
}

void KRVideoPrivate::moveTo(unsigned int frame, unsigned int stream) {
    currentFrame = frame >= frameCount ? frameCount - 1 : frame;
    currentStream = std::min(stream, static_cast<std::uint32_t>(streams.size()) - 1);
}

std::uint32_t KRVideoPrivate::offsetOfChunk() const {
    std::uint32_t offset = dataOffset + currentFrame * frameSize;
    for (std::uint32_t i = 0; i < currentStream; ++i) {
        offset += streams[i].chunkSize;
    }
    return offset;
}

bool KRVideoPrivate::prepare(KRImage& image, bool adapt) const {
    if (!adapt) {
        // The stamp is read from the first 25 bytes even if the chunk has fewer. Of an external buffer, only the
        // chunk and the image's geometry promise a size.
        const std::int64_t promised =
            std::max<std::int64_t>(chunkSize(), wrappingProduct(image.width, image.height, image.nbLayers));
        return hasBytes(image, std::max<std::ptrdiff_t>(chunkSize(), oxv::kChunkHeaderSize)) &&
               (countOwnedBytes(image) >= 0 || promised >= std::int64_t{oxv::kChunkHeaderSize});
    }
    if (!image.ownsData()) {
        return false;
    }
    const streamProperties& stream = streams[currentStream];
    const std::uint32_t imageSize = stream.width * stream.height * stream.nbLayers;
    if (image.colorSpace == static_cast<int>(stream.colorSpace) &&
        image.nbLayers == static_cast<int>(stream.nbLayers) &&
        image.width == static_cast<int>(stream.width) && image.height == static_cast<int>(stream.height) &&
        countOwnedBytes(image) >= std::ptrdiff_t{std::max(imageSize, stream.chunkSize)}) {
        return true;
    }
    try {
        KRImage fitting(image);
        if (!fit(fitting)) {
            return false;
        }
        image = fitting;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool KRVideoPrivate::fit(KRImage& image) const {
    const streamProperties& stream = streams[currentStream];
    const unsigned char* const former = image.data.get();
    if (image.colorSpace != static_cast<int>(stream.colorSpace)) {
        try {
            image.setColorSpace(static_cast<int>(stream.colorSpace));
        } catch (const std::invalid_argument&) {
            // The image's size has no code to allocate for: it gets its buffer below.
        }
    }
    if (image.width != static_cast<int>(stream.width) || image.height != static_cast<int>(stream.height)) {
        image.setResolution(static_cast<int>(stream.resolution));
    }
    image.nbLayers = static_cast<int>(stream.nbLayers);

    // The buffer may still be too small: setResolution compares codes, and the depth may be above 8.
    const std::uint32_t imageSize = stream.width * stream.height * stream.nbLayers;
    const std::uint32_t size = std::max(imageSize, stream.chunkSize);
    if (countOwnedBytes(image) < std::ptrdiff_t{size}) {
        if (size > imageSize && !input.reaches(size)) {
            return false;
        }
        image.data = KRImage::internalDataUninitialized(size);
        image.allocatedSize = static_cast<int>(size);
        image.allocatedResolution = static_cast<int>(stream.resolution);
        image.allocatedLayers = static_cast<int>(stream.nbLayers);
    }
    if (image.data.get() != former) {
        std::memset(image.data.get(), 0,
                    oxv::kChunkHeaderSize); // the header if nothing can be read
    }
    return true;
}

void KRVideoPrivate::readChunk(KRImage& image, Angles angles) {
    input.readAt(image.data.get(), chunkSize(), position);
    position += chunkSize();

    unsigned char bytes[oxv::kChunkHeaderSize];
    std::memcpy(bytes, image.data.get(), sizeof bytes);
    KROxvChunkHeader header = KROxvChunkHeader::decode(bytes);
    if (version == oxv::kVersion0) {
        header.angles = kDefaultAngles;
    } else if (angles == Angles::OneByteApart) {
        // The floats overlap, so only the first is the one that was written: deliberate.
        for (std::size_t i = 0; i < header.angles.size(); ++i) {
            std::memcpy(&header.angles[i], bytes + oxv::kAnglesOffset + i, sizeof(float));
        }
    }
    image.timeStamp = header.timeStamp;
    image.cameraId = header.cameraId;
    image.leftAngle = header.angles[0];
    image.topAngle = header.angles[1];
    image.rightAngle = header.angles[2];
    image.bottomAngle = header.angles[3];
}

bool KRVideo::goToFrame(unsigned int frame, unsigned int stream) {
    if (!p_->isReading) {
        return false;
    }
    p_->moveTo(frame, stream);
    p_->position = p_->offsetOfChunk();
    return true;
}

bool KRVideo::getFrame(KRImage& image, unsigned int frame, unsigned int stream, bool adapt) {
    if (!p_->isReading) {
        return false;
    }
    p_->moveTo(frame, stream);
    if (!p_->prepare(image, adapt)) {
        return false;
    }
    p_->position = p_->offsetOfChunk();
    p_->readChunk(image, KRVideoPrivate::Angles::AsWritten);
    return true;
}

bool KRVideo::getNextFrame(KRImage& image, bool adapt) {
    if (!p_->isReading) {
        return false;
    }
    if (++p_->currentFrame >= p_->frameCount) {
        p_->currentFrame = p_->frameCount - 1;
        return false;
    }
    if (!p_->prepare(image, adapt)) {
        return false;
    }
    p_->position += p_->frameSize - p_->chunkSize(); // the other streams' chunks
    p_->readChunk(image, KRVideoPrivate::Angles::OneByteApart);
    return true;
}

bool KRVideo::getPrecedingFrame(KRImage& image, bool adapt) {
    if (!p_->isReading || p_->currentFrame == 0) {
        return false;
    }
    --p_->currentFrame;
    if (!p_->prepare(image, adapt)) {
        return false;
    }
    p_->position = p_->offsetOfChunk();
    p_->readChunk(image, KRVideoPrivate::Angles::OneByteApart);
    return true;
}

unsigned int KRVideo::getFrameCount() const noexcept {
    return p_->frameCount;
}

const std::vector<streamProperties>& KRVideo::getStreams() const noexcept {
    return p_->streams;
}

unsigned int KRVideo::getCurrentFrame() const noexcept {
    return p_->currentFrame;
}

unsigned int KRVideo::getCurrentStream() const noexcept {
    return p_->currentStream;
}

// ---- recording

KRImage KRVideoPrivate::makeUnsizedImage() {
    KRImage image(0, 0, kYUV422ColorSpace, true, 0.0f, 0.0f, 0.0f, 0.0f);
    image.nbLayers = 0;
    image.data = KRImage::emptyData(false);
    return image;
}

bool KRVideo::recordVideo(std::string path, unsigned int extraHeaderSize, std::vector<streamHeader> streams) {
    path += ".oxv";
    if (!p_->output.openToWrite(path)) {
        throw KRError("KRVideo", "recordVideo", "Can't open file. Check its path and presence");
    }
    const auto streamCount = static_cast<std::uint32_t>(streams.size());
    const oxv::FileHeader header = {oxv::kVersion1, extraHeaderSize, oxv::kNeverClosed, streamCount};
    p_->output.append(&header, sizeof header, streams.data(), streams.size() * sizeof(streamHeader));
    p_->path = std::move(path);
    p_->frameCount = 0;
    // The extra header counts in the offset but is not written: deliberate.
    p_->dataOffset = dataOffsetOf(streamCount, extraHeaderSize);
    p_->isRecording = true;
    return true;
}

void KRVideoPrivate::writeChunk(const KROxvChunkHeader& header, const void* image, int size) {
    const auto bytes = header.encode();
    const std::size_t imageSize = static_cast<std::size_t>(std::max(size, 0));
    const std::size_t rest = std::max(imageSize, bytes.size()) - bytes.size();
    const void* from = rest > 0 ? static_cast<const char*>(image) + bytes.size() : nullptr;
    output.append(bytes.data(), bytes.size(), from, rest);
    ++frameCount;
}

bool KRVideo::write(char* buffer, int size, long long timestamp, char cameraIndex, float a0, float a1,
                    float a2, float a3) {
    if (!p_->isRecording) {
        return false;
    }
    p_->writeChunk({timestamp, static_cast<std::int8_t>(cameraIndex), {a0, a1, a2, a3}}, buffer, size);
    return true;
}

bool KRVideo::write(int rows, int cols, char* bgr, long long timestamp, char cameraIndex, float a0, float a1,
                    float a2, float a3) {
    if (!p_->isRecording) {
        return false;
    }
    KRImage& image = p_->converted; // its buffer is reused for the next frame of this size
    image.computeYUV422imageFromBGR(rows, cols, bgr);
    const int size = wrappingProduct(2, rows, cols);
    if (size % 4 != 0) { // the last pixel has no partner and is not converted
        std::memset(image.data.get() + size - 2, 0, 2);
    }
    p_->writeChunk({timestamp, static_cast<std::int8_t>(cameraIndex), {a0, a1, a2, a3}}, image.data.get(),
                   size);
    return true;
}

// ---- both

void KRVideo::closeVideo() {
    if (p_->isRecording) {
        p_->isRecording = false;
        p_->output.writeAt(&p_->frameCount, sizeof p_->frameCount, offsetof(oxv::FileHeader, frames));
        p_->output.close();
        p_->converted = KRVideoPrivate::makeUnsizedImage();
        std::cout << "stop recording " << p_->path << " file (" << p_->frameCount << " frames)" << std::endl;
    }
    p_->input.close();
}

} // namespace KR
