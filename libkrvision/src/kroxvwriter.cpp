#include "krfile.hpp"
#include "krownedbytes.hpp"
#include "krvision/krimage.hpp"
#include "krvision/kroxvfile.hpp"
#include "krvision/krvideo.hpp"
#include "krwrappingproduct.hpp"

#include <cerrno>
#include <cstring>

namespace KR {

namespace {

std::uint64_t getSize(const KRImage& image) {
    const int size = wrappingProduct(image.width, image.height, image.nbLayers);
    if (size < static_cast<int>(oxv::kChunkHeaderSize) || !hasBytes(image, size)) {
        throw std::invalid_argument("KROxvWriter: an image has fewer than 25 bytes of pixels");
    }
    return static_cast<std::uint64_t>(size);
}

} // namespace

KROxvWriter::KROxvWriter(const std::string& path, const std::vector<streamHeader>& streams,
                         const std::string& name)
    : name_(name.empty() ? path : name), file_(std::make_unique<KRFile>()) {
    const std::array<std::uint32_t, 4> header = {oxv::kVersion1, 0, oxv::kNeverClosed,
                                                 static_cast<std::uint32_t>(streams.size())};
    if (!file_->openToWrite(path) ||
        !file_->append(header.data(), sizeof header, streams.data(), streams.size() * sizeof(streamHeader))) {
        fail();
    }
    size_ = sizeof header + streams.size() * sizeof(streamHeader);
}

KROxvWriter::~KROxvWriter() = default;

bool KROxvWriter::hasRoom() const noexcept {
    return size_ + lastChunk_ < oxv::kAddressableSize;
}

void KROxvWriter::write(const std::vector<const KRImage*>& images) {
    std::uint64_t frameSize = 0;
    for (const KRImage* image : images) {
        lastChunk_ = frameSize;
        frameSize += getSize(*image);
    }
    for (const KRImage* image : images) {
        const KROxvChunkHeader header = {
            image->timeStamp,
            image->cameraId,
            {image->leftAngle, image->topAngle, image->rightAngle, image->bottomAngle}};
        const auto bytes = header.encode();
        if (!file_->append(bytes.data(), bytes.size(), image->data.get() + bytes.size(),
                           getSize(*image) - bytes.size())) {
            fail();
        }
    }
    size_ += frameSize;
    ++frames_;
}

void KROxvWriter::removeCutFrame() {
    if (!file_->truncate(size_)) {
        fail();
    }
}

void KROxvWriter::close() {
    if (!file_->writeAt(&frames_, sizeof frames_, oxv::kFrameCountOffset) || !file_->sync() ||
        !file_->close()) {
        fail();
    }
}

void KROxvWriter::fail() const {
    throw std::runtime_error(name_ + ": cannot be written: " + std::strerror(errno));
}

} // namespace KR
