#include "recording/krsteppedcamera.hpp"

#include "camera/krframe.hpp"
#include "conversion/krconverter.hpp"

#include <stdexcept>
#include <utility>

namespace KR {

KRSteppedCamera::KRSteppedCamera(std::string path, int stream)
    : path_(std::move(path)), stream_(stream), converter_(std::make_shared<KRConverter>()) {
    status_.state = "opening";
}

void KRSteppedCamera::open() {
    const KRLock lock(mutex_);
    if (stopping_) {
        throw std::runtime_error("the camera service is shutting down");
    }
    if (!recording_) {
        recording_.emplace(path_, stream_);
        status_.state = "open";
    }
}

void KRSteppedCamera::close() {
    const KRLock lock(mutex_);
    stopping_ = true;
}

std::shared_ptr<KRFrame> KRSteppedCamera::waitForFrame(std::uint64_t after,
                                                       std::chrono::steady_clock::time_point /*deadline*/) {
    const KRLock lock(mutex_);
    if (stopping_ || !recording_) {
        return nullptr;
    }
    if (after >= recording_->getFrameCount()) {
        throw std::runtime_error("the recording has ended");
    }
    auto frame = std::make_shared<KRFrame>(after + 1, recording_->read(after), converter_);
    status_.width = frame->getWidth();
    status_.height = frame->getHeight();
    return frame;
}

bool KRSteppedCamera::isLast(std::uint64_t number) const {
    const KRLock lock(mutex_);
    return recording_ && number == recording_->getFrameCount();
}

KRCamera::Status KRSteppedCamera::getStatus() const {
    const KRLock lock(mutex_);
    return status_;
}

} // namespace KR
