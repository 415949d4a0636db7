#include "service/krcameraslot.hpp"

#include <krplatform/krlog.hpp>

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
    info.model = source_->getModel();
    info.state = "closed";
    std::shared_ptr<KRCamera> camera;
    {
        const std::lock_guard lock(mutex_);
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
        const std::lock_guard users(usersMutex_);
        const std::lock_guard lock(mutex_);
        if (shutDown_) {
            throw std::runtime_error(getTitle() + " cannot be opened: the camera service is shutting down");
        }
        if (!camera_) {
            camera_ = source_->makeCamera(index_, getTitle());
        }
        camera = camera_;
        ++users_;
    }
    camera->want(size);
    try {
        camera->open();
    } catch (const std::runtime_error& error) {
        const std::string text = getTitle() + " cannot be opened: " + error.what();
        release();
        throw std::runtime_error(text);
    }
}

void KRCameraSlot::want(const KRSize& size) const {
    if (const std::shared_ptr<KRCamera> camera = getCamera()) {
        camera->want(size);
    }
}

void KRCameraSlot::release() {
    const std::lock_guard users(usersMutex_);
    {
        const std::lock_guard lock(mutex_);
        if (--users_ > 0) {
            return;
        }
    }
    close();
}

void KRCameraSlot::shutDown() {
    {
        const std::lock_guard lock(mutex_);
        shutDown_ = true;
    }
    const std::lock_guard users(usersMutex_);
    close();
}

std::shared_ptr<KRCamera> KRCameraSlot::getCamera() const {
    const std::lock_guard lock(mutex_);
    return camera_;
}

bool KRCameraSlot::isShutDown() const {
    const std::lock_guard lock(mutex_);
    return shutDown_;
}

void KRCameraSlot::close() {
    std::shared_ptr<KRCamera> camera;
    {
        const std::lock_guard lock(mutex_);
        camera = std::exchange(camera_, nullptr);
    }
    if (camera) {
        camera->close();
        getControls().cameraClosed();
        logInfo("KRVideoDevice", getTitle() + " is closed");
    }
}

} // namespace KR
