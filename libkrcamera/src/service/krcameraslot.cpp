#include "service/krcameraslot.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <cassert>
#include <stdexcept>
#include <utility>

namespace KR {

KRCameraSlot::KRCameraSlot(int index, std::unique_ptr<KRSource> source)
    : index_(index), source_(std::move(source)) {}

std::string KRCameraSlot::getTitle() const {
    return "camera " + std::to_string(index_) + " (" + source_->getText() + ")";
}

KRCameraInfo KRCameraSlot::getInfo() const {
    KRCameraInfo info;
    info.camera = index_;
    info.source = source_->getText();
    info.model = getModel();
    info.state = "closed";
    std::shared_ptr<KRCamera> camera;
    {
        const KRLock lock(mutex_);
        camera = camera_;
        info.subscribers = users_;
    }
    if (camera) {
        const KRCamera::Status status = camera->getStatus();
        info.state = status.state;
        info.failure = status.failure;
        info.width = status.width;
        info.height = status.height;
    }
    return info;
}

void KRCameraSlot::acquire(const KRSize& size) {
    std::shared_ptr<KRCamera> camera;
    {
        const KRLock users(usersMutex_);
        const KRLock lock(mutex_);
        if (shutDown_) {
            throw std::runtime_error(getTitle() + " cannot be opened: the camera service is shutting down");
        }
        if (!camera_) {
            camera_ = source_->makeCamera(index_, getTitle());
        }
        camera = camera_;
        ++users_;
    }
    try {
        camera->want(size);
        camera->open();
    } catch (...) {
        release();
        throw std::runtime_error(getTitle() + " cannot be opened: " + describeCurrentException());
    }
}

void KRCameraSlot::want(const KRSize& size) const {
    if (const std::shared_ptr<KRCamera> camera = getCamera()) {
        camera->want(size);
    }
}

void KRCameraSlot::release() {
    const KRLock users(usersMutex_);
    {
        const KRLock lock(mutex_);
        assert(users_ > 0);
        if (--users_ > 0) {
            return;
        }
    }
    close();
}

void KRCameraSlot::shutDown() {
    {
        const KRLock lock(mutex_);
        shutDown_ = true;
    }
    const KRLock users(usersMutex_);
    close();
}

std::shared_ptr<KRCamera> KRCameraSlot::getCamera() const {
    const KRLock lock(mutex_);
    return camera_;
}

bool KRCameraSlot::isShutDown() const {
    const KRLock lock(mutex_);
    return shutDown_;
}

void KRCameraSlot::close() {
    std::shared_ptr<KRCamera> camera;
    {
        const KRLock lock(mutex_);
        camera = std::exchange(camera_, nullptr);
    }
    if (camera) {
        camera->close();
        getControls().cameraClosed();
        logInfo("KRVideoDevice", getTitle() + " is closed");
    }
}

} // namespace KR
