#include "krfile.hpp"
#include "krownedbytes.hpp"
#include "kroxvlayout.hpp"
#include "krvision/krimage.hpp"
#include "krvision/kroxvfile.hpp"
#include "krwrappingproduct.hpp"

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace KR {

KROxvWriter::KROxvWriter(const std::string& path, const std::vector<streamHeader>& streams,
                         const std::string& name)
    : name_(name.empty() ? path : name), file_(std::make_unique<KRFile>()) {
    for (const streamHeader& header : streams) {
        streams_.push_back(KROxvStream::make(header, frameSize_));
        frameSize_ += streams_.back().chunkSize;
        if (streams_.back().chunkSize == 0) {
            throw std::runtime_error(name_ +
                                     ": a stream has an impossible geometry: " + streams_.back().describe());
        }
    }
    const oxv::FileHeader header = {oxv::kVersion1, 0, oxv::kNeverClosed,
                                    static_cast<std::uint32_t>(streams.size())};
    if (!file_->openToWrite(path) ||
        !file_->append(&header, sizeof header, streams.data(), streams.size() * sizeof(streamHeader))) {
        fail();
    }
    size_ = sizeof header + streams.size() * sizeof(streamHeader);
}

KROxvWriter::~KROxvWriter() = default;

bool KROxvWriter::hasRoom() const noexcept {
    return size_ + (streams_.empty() ? 0 : streams_.back().offset) < oxv::kAddressableSize;
}

// A chunk of another size would shift all that follow.
void KROxvWriter::check(const std::vector<const KRImage*>& images) const {
    if (images.size() != streams_.size()) {
        throw std::runtime_error(name_ + ": a frame has " + std::to_string(streams_.size()) +
                                 " images, not " + std::to_string(images.size()));
    }
    for (std::size_t i = 0; i < images.size(); ++i) {
        const KRImage& image = *images[i];
        const int size = wrappingProduct(image.width, image.height, image.nbLayers);
        if (size < 0 || static_cast<std::uint64_t>(size) != streams_[i].chunkSize || !hasBytes(image, size)) {
            throw std::runtime_error(name_ + ": an image of " + std::to_string(image.width) + "x" +
                                     std::to_string(image.height) + " pixels of " +
                                     std::to_string(image.nbLayers) + " bytes does not fit stream " +
                                     std::to_string(i) + ": " + streams_[i].describe());
        }
    }
}

void KROxvWriter::write(const std::vector<const KRImage*>& images) {
    check(images);
    for (std::size_t i = 0; i < images.size(); ++i) {
        const KRImage& image = *images[i];
        const KROxvChunkHeader header = {
            image.timeStamp,
            image.cameraId,
            {image.leftAngle, image.topAngle, image.rightAngle, image.bottomAngle}};
        const auto bytes = header.encode();
        if (!file_->append(bytes.data(), bytes.size(), image.data.get() + bytes.size(),
                           streams_[i].chunkSize - bytes.size())) {
            fail();
        }
    }
    size_ += frameSize_;
    ++frames_;
}

void KROxvWriter::removeCutFrame() {
    if (!file_->truncate(size_)) {
        fail();
    }
}

void KROxvWriter::close() {
    if (!file_->writeAt(&frames_, sizeof frames_, offsetof(oxv::FileHeader, frames)) || !file_->sync() ||
        !file_->close()) {
        fail();
    }
}

void KROxvWriter::fail() const {
    throw std::runtime_error(name_ + ": cannot be written: " + std::strerror(errno));
}

} // namespace KR
