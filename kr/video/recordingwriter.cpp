#include "recordingwriter.hpp"

#include <array>
#include <cstring>
#include <vector>

namespace KR::tool {

namespace {

constexpr std::uint32_t kVersion1 = 0x4F585631;
constexpr std::uint32_t kNeverClosed = 0xFFFFFFFF;
constexpr std::uint64_t kCountOffset = 8;
constexpr std::size_t kChunkHeaderSize = 25;

} // namespace

RecordingWriter::RecordingWriter(const std::string& path, const streamHeader& stream) : file_(path) {
    const std::array<std::uint32_t, 8> headers = {
        kVersion1, 0, kNeverClosed, 1, stream.width, stream.height, stream.colorSpace, stream.depth};
    file_.write(headers.data(), sizeof headers);
    size_ = sizeof headers;
}

bool RecordingWriter::hasRoom() const noexcept {
    return size_ < std::uint64_t{1} << 32;
}

void RecordingWriter::write(const KRImage& image) {
    std::array<char, kChunkHeaderSize> header;
    std::memcpy(header.data(), &image.timeStamp, 8);
    std::memcpy(header.data() + 8, &image.cameraId, 1);
    const std::array<float, 4> angles = {image.leftAngle, image.topAngle, image.rightAngle,
                                         image.bottomAngle};
    std::memcpy(header.data() + 9, angles.data(), sizeof angles);
    const auto size = static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height) *
                      static_cast<std::size_t>(image.nbLayers);
    file_.write(header.data(), header.size());
    file_.write(image.data.get() + kChunkHeaderSize, size - kChunkHeaderSize);
    size_ += size;
    ++frames_;
}

void RecordingWriter::close() {
    file_.writeAt(&frames_, sizeof frames_, kCountOffset);
    file_.close();
}

} // namespace KR::tool
