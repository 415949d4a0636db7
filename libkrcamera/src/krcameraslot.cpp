#include "krcameraslot.hpp"

#include "krlivecamera.hpp"
#include "krpipeline.hpp"
#include "krrecording.hpp"
#include "krsteppedcamera.hpp"
#include "krv4l2controls.hpp"

#include <krplatform/krlog.hpp>

#include <stdexcept>
#include <utility>

namespace KR {

namespace {

const KRSoftwareControls noControls;

} // namespace

KRCameraSlot::KRCameraSlot(int index, KRSource source) : index_(index), source_(std::move(source)) {
    if (source_.kind == KRSource::Kind::V4l2) {
        controls_ = std::make_unique<KRV4l2Controls>(source_.argument);
        return;
    }
    auto controls = hasPictureControls(source_) ? std::make_unique<KRSoftwareControls>(getPictureControls())
                                                : std::make_unique<KRSoftwareControls>();
    softwareControls_ = controls.get();
    controls_ = std::move(controls);
}

std::string KRCameraSlot::getTitle() const {
    return "camera " + std::to_string(index_) + " (" + source_.text + ")";
}

KRCameraInfo KRCameraSlot::getInfo() const {
    KRCameraInfo info;
    info.camera = index_;
    info.source = source_.text;
    info.model = static_cast<int>(source_.kind);
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
            camera_ = makeCamera();
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

std::shared_ptr<KRCamera> KRCameraSlot::makeCamera() {
    if (source_.kind == KRSource::Kind::Recording && source_.pacedByFetch) {
        return std::make_shared<KRSteppedCamera>(source_.argument, source_.stream);
    }
    const auto open = [this](const KRSize& wanted) -> std::unique_ptr<KRImageSource> {
        if (source_.kind == KRSource::Kind::Recording) {
            return std::make_unique<KRRecordingPlayer>(source_.argument, source_.stream);
        }
        auto pipeline = std::make_unique<KRPipeline>(
            source_, softwareControls_ != nullptr ? *softwareControls_ : noControls, wanted);
        controls_->cameraOpened();
        return pipeline;
    };
    return std::make_shared<KRLiveCamera>(index_, getTitle(), open, isSteady(source_));
}

void KRCameraSlot::close() {
    std::shared_ptr<KRCamera> camera;
    {
        const std::lock_guard lock(mutex_);
        camera = std::exchange(camera_, nullptr);
    }
    if (camera) {
        camera->close();
        controls_->cameraClosed();
        logInfo("KRVideoDevice", getTitle() + " is closed");
    }
}

} // namespace KR
