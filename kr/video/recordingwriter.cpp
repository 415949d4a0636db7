#include "recordingwriter.hpp"

#include <array>
#include <cstring>

namespace KR::tool {

namespace {

constexpr std::uint32_t kVersion1 = 0x4F585631;
constexpr std::uint32_t kNeverClosed = 0xFFFFFFFF;
constexpr std::uint64_t kCountOffset = 8;
constexpr std::size_t kChunkHeaderSize = 25;

std::uint64_t getSize(const KRImage& image) {
    return static_cast<std::uint64_t>(image.width) * static_cast<std::uint64_t>(image.height) *
           static_cast<std::uint64_t>(image.nbLayers);
}

} // namespace

RecordingWriter::RecordingWriter(const std::string& path, const std::vector<streamHeader>& streams)
    : file_(path) {
    std::vector<std::uint32_t> headers = {kVersion1, 0, kNeverClosed,
                                          static_cast<std::uint32_t>(streams.size())};
    for (const streamHeader& stream : streams) {
        headers.insert(headers.end(), {stream.width, stream.height, stream.colorSpace, stream.depth});
    }
    file_.write(headers.data(), headers.size() * sizeof headers[0]);
    size_ = headers.size() * sizeof headers[0];
}

bool RecordingWriter::hasRoom() const noexcept {
    return size_ + lastChunk_ < std::uint64_t{1} << 32;
}

void RecordingWriter::write(const std::vector<const KRImage*>& images) {
    for (const KRImage* image : images) {
        writeChunk(*image);
    }
    std::uint64_t frameSize = 0;
    for (const KRImage* image : images) {
        lastChunk_ = frameSize;
        frameSize += getSize(*image);
    }
    size_ += frameSize;
    ++frames_;
}

void RecordingWriter::writeChunk(const KRImage& image) {
    std::array<char, kChunkHeaderSize> header;
    std::memcpy(header.data(), &image.timeStamp, 8);
    std::memcpy(header.data() + 8, &image.cameraId, 1);
    const std::array<float, 4> angles = {image.leftAngle, image.topAngle, image.rightAngle,
                                         image.bottomAngle};
    std::memcpy(header.data() + 9, angles.data(), sizeof angles);
    file_.write(header.data(), header.size());
    file_.write(image.data.get() + kChunkHeaderSize, getSize(image) - kChunkHeaderSize);
}

void RecordingWriter::removeCutFrame() {
    file_.cut(size_);
}

void RecordingWriter::close() {
    file_.writeAt(&frames_, sizeof frames_, kCountOffset);
    file_.close();
}

} // namespace KR::tool
