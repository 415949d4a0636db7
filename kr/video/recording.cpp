#include "recording.hpp"

#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>

namespace KR::tool {

namespace {

constexpr std::uint64_t kFileHeaderSize = 16;
constexpr std::uint64_t kStreamHeaderSize = 16;
constexpr std::uint64_t kAddressable = std::uint64_t{1} << 32;
constexpr std::uint64_t kLargestChunk =
    std::numeric_limits<std::int32_t>::max(); // an image's bytes are an int

RecordedStream makeStream(const std::array<std::uint32_t, 4>& header) {
    RecordedStream stream = {header[0], header[1], header[2], header[3], 0, 0};
    const int layers = getNumLayersInColorSpace(static_cast<int>(stream.colorSpace));
    if (layers <= 0 || stream.width == 0 || stream.height == 0 ||
        stream.width > kLargestChunk / stream.height || stream.depth > 64) {
        return stream;
    }
    const std::uint64_t bits = std::uint64_t{stream.width} * stream.height * static_cast<unsigned>(layers) *
                               stream.depth; // below 2^31 * 12 * 64
    if (bits / 8 >= Recording::kChunkHeaderSize && bits / 8 <= kLargestChunk) {
        stream.chunkSize = bits / 8;
    }
    return stream;
}

} // namespace

bool ChunkHeader::isPlausible() const noexcept {
    constexpr float kFullCircle = 6.2831855f;
    return std::ranges::all_of(angles, [](float angle) {
        return std::isfinite(angle) && std::fabs(angle) <= kFullCircle &&
               (angle == 0.0f || std::fabs(angle) > 1e-9f); // bytes of pixels often make numbers that small
    });
}

Recording::Recording(const std::string& path) : path_(path) {
    errno = 0;
    file_.open(path, std::ios::binary);
    if (!file_ || !std::filesystem::is_regular_file(path)) {
        throw std::runtime_error(
            path + ": cannot be read: " + (errno != 0 ? std::strerror(errno) : "it is no regular file"));
    }
    fileSize_ = std::filesystem::file_size(path);
    if (fileSize_ >= sizeof words_[0]) {
        readBytes(words_.data(), std::min(fileSize_, kFileHeaderSize), 0);
    }
    if (words_[0] != kVersion1 && words_[0] != kVersion0) {
        throw NoRecording(path + ": is no oxv file");
    }
    if (fileSize_ >= kFileHeaderSize) {
        readStreams();
    }
}

void Recording::readStreams() {
    const std::uint64_t announced = std::max(words_[3], std::uint32_t{1});
    const std::uint64_t count =
        std::min<std::uint64_t>({announced, kMostStreams, (fileSize_ - kFileHeaderSize) / kStreamHeaderSize});
    std::uint64_t frameSize = 0;
    bool isSound = count == announced;
    for (std::uint64_t i = 0; i < count; ++i) {
        std::array<std::uint32_t, 4> header = {};
        readBytes(header.data(), kStreamHeaderSize, kFileHeaderSize + kStreamHeaderSize * i);
        RecordedStream stream = makeStream(header);
        stream.offset = frameSize;
        isSound = isSound && stream.chunkSize > 0;
        frameSize += stream.chunkSize;
        streams_.push_back(stream);
    }
    if (isSound) {
        frameSize_ = frameSize;
        dataOffset_ = findFirstFrame();
    }
}

// The recorder announces an extra header, but does not write it; another writer may have.
std::uint64_t Recording::findFirstFrame() {
    const std::uint64_t without = getHeaderSize();
    const std::uint64_t with = without + words_[1];
    if (words_[1] == 0 || fileSize_ < without + frameSize_) {
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

// How many of the first frames' chunks look like some if the first one begins there.
int Recording::countPlausibleChunks(std::uint64_t dataOffset) {
    constexpr std::uint64_t kFrames = 8;
    int plausible = 0;
    dataOffset_ = dataOffset;
    const std::uint64_t frames = std::min(kFrames, countCompleteFrames());
    for (std::size_t s = 0; s < std::min<std::size_t>(streams_.size(), 8); ++s) {
        std::int64_t previous = std::numeric_limits<std::int64_t>::min();
        for (std::uint64_t f = 0; f < frames; ++f) {
            const ChunkHeader header = readChunkHeader(f, s);
            constexpr std::int64_t kYear2200 = 7258118400000000;
            const bool isInOrder = header.timeStamp >= previous && header.timeStamp < kYear2200;
            plausible += header.isPlausible() && isInOrder && header.timeStamp >= -1 ? 1 : 0;
            previous = header.timeStamp;
        }
    }
    return plausible;
}

std::uint64_t Recording::getHeaderSize() const noexcept {
    return kFileHeaderSize + kStreamHeaderSize * std::max(words_[3], std::uint32_t{1});
}

void Recording::requireFrames() const {
    if (!hasAllStreams()) {
        throw std::runtime_error(path_ + ": ends within its headers, after " + std::to_string(fileSize_) +
                                 " bytes");
    }
    if (!hasFrames()) {
        throw std::runtime_error(path_ + ": its streams make no sense; kr video doctor tells more");
    }
}

std::uint64_t Recording::countBytesOfFrames() const noexcept {
    return fileSize_ > dataOffset_ ? fileSize_ - dataOffset_ : 0;
}

std::uint64_t Recording::countCompleteFrames() const noexcept {
    return countBytesOfFrames() / frameSize_;
}

std::uint64_t Recording::countCutBytes() const noexcept {
    return countBytesOfFrames() % frameSize_;
}

std::uint64_t Recording::countExpectedFrames() const noexcept {
    const std::uint64_t begun = countCompleteFrames() + (countCutBytes() > 0 ? 1 : 0);
    if (words_[2] == kNeverClosed) {
        return begun;
    }
    const std::uint64_t byChunks = (words_[2] + streams_.size() - 1) / streams_.size();
    return begun <= byChunks ? byChunks : std::max<std::uint64_t>(begun, words_[2]);
}

std::uint64_t Recording::countAddressableFrames() const noexcept {
    const std::uint64_t last = getOffset(0, streams_.size() - 1); // of the last chunk of the first frame
    const std::uint64_t frames = last < kAddressable ? (kAddressable - 1 - last) / frameSize_ + 1 : 0;
    return std::min(frames, countCompleteFrames());
}

std::uint64_t Recording::getOffset(std::uint64_t frame, std::size_t stream) const noexcept {
    return dataOffset_ + frame * frameSize_ + streams_[stream].offset;
}

ChunkHeader Recording::readChunkHeader(std::uint64_t frame, std::size_t stream) {
    std::array<char, kChunkHeaderSize> bytes;
    readBytes(bytes.data(), bytes.size(), getOffset(frame, stream));
    ChunkHeader header;
    std::memcpy(&header.timeStamp, bytes.data(), 8);
    std::memcpy(&header.cameraId, bytes.data() + 8, 1);
    std::memcpy(header.angles.data(), bytes.data() + 9, 16);
    return header;
}

void Recording::readBytes(void* to, std::uint64_t size, std::uint64_t offset) {
    file_.clear();
    file_.seekg(static_cast<std::streamoff>(offset));
    file_.read(static_cast<char*>(to), static_cast<std::streamsize>(size));
    if (static_cast<std::uint64_t>(file_.gcount()) != size) {
        throw std::runtime_error(path_ + ": cannot be read at byte " + std::to_string(offset));
    }
}

} // namespace KR::tool
