#include "krcameraslot.hpp"

#include <krplatform/krlog.hpp>

#include <stdexcept>
#include <utility>

namespace KR {

std::string KRCameraSlot::getTitle() const {
    return "camera " + std::to_string(index_) + " (" + source_.text + ")";
}

void KRCameraSlot::acquire() {
    const std::lock_guard users(usersMutex_);
    const std::shared_ptr<KRCamera> camera = getCamera();
    if (!camera || camera->getFailure()) {
        open();
    }
    ++users_;
}

void KRCameraSlot::release() {
    const std::lock_guard users(usersMutex_);
    if (--users_ == 0) {
        close();
    }
}

void KRCameraSlot::shutDown() {
    {
        const std::lock_guard lock(mutex_);
        shutDown_ = true;
        if (opening_) {
            opening_->requestStop();
        }
        if (camera_) {
            camera_->requestStop();
        }
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

// A camera that has failed stays until its successor runs, to tell those who use it what happened.
void KRCameraSlot::open() {
    const auto camera = std::make_shared<KRCamera>(index_, source_);
    {
        const std::lock_guard lock(mutex_);
        if (shutDown_) {
            throw std::runtime_error(getTitle() + " cannot be opened: the camera service is shutting down");
        }
        opening_ = camera;
    }
    try {
        camera->open();
    } catch (const std::runtime_error& error) {
        camera->close();
        const std::lock_guard lock(mutex_);
        opening_.reset();
        throw std::runtime_error(getTitle() + " cannot be opened: " + error.what());
    }
    std::shared_ptr<KRCamera> failed;
    {
        const std::lock_guard lock(mutex_);
        opening_.reset();
        failed = std::exchange(camera_, camera);
    }
    if (failed) {
        failed->close();
    }
    logInfo("KRVideoDevice", getTitle() + " is open");
}

void KRCameraSlot::close() {
    std::shared_ptr<KRCamera> camera;
    {
        const std::lock_guard lock(mutex_);
        camera = std::exchange(camera_, nullptr);
    }
    if (camera) {
        camera->close();
        logInfo("KRVideoDevice", getTitle() + " is closed");
    }
}

} // namespace KR
