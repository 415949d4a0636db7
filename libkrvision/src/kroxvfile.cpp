#include "krvision/kroxvfile.hpp"

#include "krfile.hpp"
#include "krheaderfields.hpp"
#include "krownedbytes.hpp"
#include "kroxvlayout.hpp"
#include "krvision/krcolorspacenames.hpp"
#include "krvision/krdefaultangles.hpp"
#include "krvision/krimage.hpp"
#include "krvision/krvisiondefinitions.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace KR {

namespace {

constexpr std::uint64_t kLargestChunk = std::numeric_limits<std::int32_t>::max(); // an image's size is an int

} // namespace

KROxvStream KROxvStream::make(const streamHeader& header, std::uint64_t offset) noexcept {
    KROxvStream stream = {header.width, header.height, header.colorSpace, header.depth, 0, offset};
    const int layers = getNumLayersInColorSpace(static_cast<int>(stream.colorSpace));
    if (layers <= 0 || stream.width == 0 || stream.height == 0 ||
        stream.width > kLargestChunk / stream.height || stream.depth > 64) {
        return stream;
    }
    const std::uint64_t bits = std::uint64_t{stream.width} * stream.height * static_cast<unsigned>(layers) *
                               stream.depth; // below 2^31 * 12 * 64
    if (bits / 8 >= oxv::kChunkHeaderSize && bits / 8 <= kLargestChunk) {
        stream.chunkSize = bits / 8;
    }
    return stream;
}

std::string KROxvStream::describe() const {
    return std::to_string(width) + "x" + std::to_string(height) + " pixels of " + std::to_string(depth) +
           " bits in colour space " + std::to_string(colorSpace);
}

std::string KROxvStream::explainUnreadable() const {
    const int resolution = getResolutionFromSize(static_cast<int>(width), static_cast<int>(height));
    if (resolution < 0 || resolution > kVGA) {
        return std::to_string(width) + "x" + std::to_string(height) +
               " pixels: readers open 160x120, 320x240 and 640x480 only";
    }
    if (colorSpace >= oxv::kColorSpaces) {
        return "colour space " + describeColorSpace(colorSpace) + ": readers open 0 to 16 only";
    }
    if (depth != 8) {
        return "a depth of " + std::to_string(depth) + " bits: images have 8";
    }
    return "";
}

KROxvChunkHeader KROxvChunkHeader::decode(const unsigned char (&bytes)[oxv::kChunkHeaderSize]) noexcept {
    const unsigned char* at = bytes;
    KROxvChunkHeader header;
    header.timeStamp = takeField<std::int64_t>(at);
    header.cameraId = takeField<std::int8_t>(at);
    for (float& angle : header.angles) {
        angle = takeField<float>(at);
    }
    return header;
}

std::array<unsigned char, oxv::kChunkHeaderSize> KROxvChunkHeader::encode() const noexcept {
    std::array<unsigned char, oxv::kChunkHeaderSize> bytes;
    unsigned char* at = bytes.data();
    putField(at, timeStamp);
    putField(at, cameraId);
    for (const float angle : angles) {
        putField(at, angle);
    }
    return bytes;
}

bool KROxvChunkHeader::isPlausible() const noexcept {
    constexpr float kFullCircle = 6.2831855f;
    return std::ranges::all_of(angles, [](float angle) {
        return std::isfinite(angle) && std::fabs(angle) <= kFullCircle &&
               (angle == 0.0f || std::fabs(angle) > 1e-9f); // pixels read as a float are often that small
    });
}

KROxvFile::KROxvFile(const std::string& path) : path_(path), file_(std::make_unique<KRFile>()) {
    fileSize_ = file_->openRegular(path);
    oxv::FileHeader header = {};
    if (fileSize_ >= sizeof header.version) {
        readBytes(&header, std::min<std::uint64_t>(fileSize_, sizeof header), 0);
    }
    if (header.version != oxv::kVersion1 && header.version != oxv::kVersion0) {
        throw KRNotOxvError(path + ": not an oxv file");
    }
    version_ = header.version == oxv::kVersion1 ? 1 : 0;
    extraHeaderSize_ = header.extraHeaderSize;
    announcedCount_ = header.frames;
    announcedStreams_ = header.streams;
    if (fileSize_ >= sizeof header) {
        readStreams();
    }
}

KROxvFile::~KROxvFile() = default;

void KROxvFile::readStreams() {
    const std::uint64_t announced = std::max(announcedStreams_, std::uint32_t{1});
    const std::uint64_t count = std::min<std::uint64_t>(
        {announced, kMostStreams, (fileSize_ - sizeof(oxv::FileHeader)) / sizeof(streamHeader)});
    std::uint64_t frameSize = 0;
    bool isSound = count == announced;
    for (std::uint64_t i = 0; i < count; ++i) {
        streamHeader header = {};
        readBytes(&header, sizeof header, sizeof(oxv::FileHeader) + sizeof header * i);
        const KROxvStream stream = KROxvStream::make(header, frameSize);
        isSound = isSound && stream.chunkSize > 0;
        frameSize += stream.chunkSize;
        streams_.push_back(stream);
    }
    if (isSound) {
        frameSize_ = frameSize;
        dataOffset_ = findFirstFrame();
    }
}

// KRVideo announces an extra header but does not write it; another recorder may have written one.
std::uint64_t KROxvFile::findFirstFrame() {
    const std::uint64_t without = getHeaderSize();
    const std::uint64_t with = without + extraHeaderSize_;
    if (extraHeaderSize_ == 0 || fileSize_ < without + frameSize_) {
        return with;
    }
    const int plausibleWithout = countPlausibleChunks(without);
    const int plausibleWith = countPlausibleChunks(with);
    if (plausibleWithout != plausibleWith) {
        return plausibleWithout > plausibleWith ? without : with;
    }
    const auto fits = [&](std::uint64_t offset) { return (fileSize_ - offset) % frameSize_ == 0; };
    return fileSize_ < with || (fits(without) && !fits(with)) ? without : with;
}

// Counts the chunks of the first frames with a plausible header, assuming that the first frame begins there.
int KROxvFile::countPlausibleChunks(std::uint64_t dataOffset) {
    constexpr std::uint64_t kFrames = 8;
    int plausible = 0;
    dataOffset_ = dataOffset;
    const std::uint64_t frames = std::min(kFrames, countCompleteFrames());
    for (std::size_t s = 0; s < std::min<std::size_t>(streams_.size(), 8); ++s) {
        std::int64_t previous = std::numeric_limits<std::int64_t>::min();
        for (std::uint64_t f = 0; f < frames; ++f) {
            const KROxvChunkHeader header = readChunkHeader(f, s);
            constexpr std::int64_t kYear2200 = 7258118400000000;
            const bool isInOrder = header.timeStamp >= previous && header.timeStamp < kYear2200;
            plausible += header.isPlausible() && isInOrder && header.timeStamp >= -1 ? 1 : 0;
            previous = header.timeStamp;
        }
    }
    return plausible;
}

std::uint64_t KROxvFile::getHeaderSize() const noexcept {
    return sizeof(oxv::FileHeader) +
           std::uint64_t{sizeof(streamHeader)} * std::max(announcedStreams_, std::uint32_t{1});
}

void KROxvFile::requireFrames() const {
    if (!hasAllStreams()) {
        throw std::runtime_error(path_ + ": ends within its headers, after " + std::to_string(fileSize_) +
                                 " bytes");
    }
    if (announcedStreams_ > kMostStreams) {
        throw std::runtime_error(path_ + ": announces " + std::to_string(announcedStreams_) +
                                 " streams; at most " + std::to_string(kMostStreams) + " are supported");
    }
    const auto unusable = std::ranges::find(streams_, 0U, &KROxvStream::chunkSize);
    if (unusable != streams_.end()) {
        throw std::runtime_error(path_ + ": stream " + std::to_string(unusable - streams_.begin()) +
                                 " has an impossible geometry: " + unusable->describe());
    }
}

std::uint64_t KROxvFile::countBytesOfFrames() const noexcept {
    return fileSize_ > dataOffset_ ? fileSize_ - dataOffset_ : 0;
}

std::uint64_t KROxvFile::countCompleteFrames() const noexcept {
    return hasFrames() ? countBytesOfFrames() / frameSize_ : 0;
}

std::uint64_t KROxvFile::countCutBytes() const noexcept {
    return hasFrames() ? countBytesOfFrames() % frameSize_ : 0;
}

std::uint64_t KROxvFile::countExpectedFrames() const noexcept {
    const std::uint64_t begun = countCompleteFrames() + (countCutBytes() > 0 ? 1 : 0);
    if (!hasFrames() || !isClosed()) {
        return begun;
    }
    const std::uint64_t byChunks = (announcedCount_ + streams_.size() - 1) / streams_.size();
    return begun <= byChunks ? byChunks : std::max<std::uint64_t>(begun, announcedCount_);
}

std::uint64_t KROxvFile::countAddressableFrames() const noexcept {
    if (!hasFrames()) {
        return 0;
    }
    const std::uint64_t last = dataOffset_ + streams_.back().offset; // of the first frame's last chunk
    const std::uint64_t frames =
        last < oxv::kAddressableSize ? (oxv::kAddressableSize - 1 - last) / frameSize_ + 1 : 0;
    return std::min(frames, countCompleteFrames());
}

std::uint64_t KROxvFile::getOffset(std::uint64_t frame, std::size_t stream) const {
    return dataOffset_ + frame * frameSize_ + streams_.at(stream).offset;
}

KROxvChunkHeader KROxvFile::readChunkHeader(std::uint64_t frame, std::size_t stream) const {
    unsigned char bytes[oxv::kChunkHeaderSize];
    readBytes(bytes, sizeof bytes, getOffset(frame, stream));
    return KROxvChunkHeader::decode(bytes);
}

void KROxvFile::readBytes(void* to, std::uint64_t size, std::uint64_t offset) const {
    if (file_->readAt(to, size, offset) != size) {
        throw std::runtime_error(path_ + ": cannot be read at byte " + std::to_string(offset));
    }
}

KRImage KROxvFile::makeImage(std::size_t stream) const {
    const KROxvStream& header = streams_.at(stream);
    if (header.chunkSize == 0 || header.depth != 8) {
        throw std::runtime_error(path_ + ": stream " + std::to_string(stream) +
                                 " cannot be read as images of 8 bits: " + header.describe());
    }
    KRImage image(0, 0, static_cast<int>(header.colorSpace), false, 0.0f, 0.0f, 0.0f, 0.0f);
    image.width = static_cast<int>(header.width);
    image.height = static_cast<int>(header.height);
    image.allocatedSize = static_cast<int>(header.chunkSize);
    image.allocatedResolution = getResolutionFromSize(image.width, image.height);
    image.data = KRImage::internalDataUninitialized(header.chunkSize);
    return image;
}

void KROxvFile::readImage(KRImage& image, std::uint64_t frame, std::size_t stream) const {
    const KROxvStream& header = streams_.at(stream);
    const bool fits =
        image.width == static_cast<int>(header.width) && image.height == static_cast<int>(header.height) &&
        image.colorSpace == static_cast<int>(header.colorSpace) && header.depth == 8 &&
        header.chunkSize > 0 && countOwnedBytes(image) >= static_cast<std::ptrdiff_t>(header.chunkSize);
    if (!fits) {
        throw std::invalid_argument("KROxvFile: the image is not of the geometry of stream " +
                                    std::to_string(stream));
    }
    unsigned char* const pixels = image.data.get();
    readBytes(pixels, header.chunkSize, getOffset(frame, stream));
    unsigned char bytes[oxv::kChunkHeaderSize];
    std::memcpy(bytes, pixels, sizeof bytes);
    const KROxvChunkHeader chunk = KROxvChunkHeader::decode(bytes);
    const std::array<float, 4> angles = getVersion() == 1 ? chunk.angles : kDefaultAngles;
    image.timeStamp = chunk.timeStamp;
    image.cameraId = chunk.cameraId;
    image.leftAngle = angles[0];
    image.topAngle = angles[1];
    image.rightAngle = angles[2];
    image.bottomAngle = angles[3];
    const std::size_t row = header.chunkSize / header.height;
    if (row >= oxv::kChunkHeaderSize && header.height > 1) {
        std::memcpy(pixels, pixels + row, oxv::kChunkHeaderSize);
    }
}

} // namespace KR
