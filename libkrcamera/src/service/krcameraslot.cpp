#include "service/krcameraslot.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <cassert>
#include <cctype>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace KR {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(
        a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

// Null if there is none of this name.
const KRCameraControl* findControl(const std::vector<KRCameraControl>& controls, std::string_view name) {
    const auto found =
        std::ranges::find_if(controls, [&](const auto& each) { return equalsIgnoringCase(each.name, name); });
    return found == controls.end() ? nullptr : &*found;
}

} // namespace

KRCameraSlot::KRCameraSlot(int index, std::unique_ptr<KRSource> source)
    : index_(index), source_(source.get()) {
    sources_.push_back(std::move(source));
}

std::shared_ptr<KRCamera> KRCameraSlot::setSource(std::unique_ptr<KRSource> source) {
    const KRLock users(usersMutex_);
    KRControls& controlsBefore = getControls();
    sources_.push_back(std::move(source));
    source_.store(sources_.back().get(), std::memory_order_release);
    std::shared_ptr<KRCamera> before;
    std::shared_ptr<KRCamera> next;
    {
        const KRLock lock(mutex_);
        if (!camera_) {
            return nullptr;
        }
        next = getSource().makeCamera(index_, getTitle());
        before = std::exchange(camera_, next);
    }
    before->close(); // threads that wait for its frames continue with the new one
    controlsBefore.cameraClosed();
    logInfo("KRVideoDevice", getTitle() + " replaces another source");
    if (initial_.size) {
        next->want(*initial_.size);
    }
    setControls(initial_.controls);
    return next;
}

std::string KRCameraSlot::getTitle() const {
    return "camera " + std::to_string(index_) + " (" + getSource().getText() + ")";
}

KRCameraInfo KRCameraSlot::getInfo() const {
    KRCameraInfo info;
    info.camera = index_;
    info.source = getSource().getText();
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
        bool isFirst = false;
        {
            const KRLock lock(mutex_);
            if (shutDown_) {
                throw std::runtime_error(getTitle() +
                                         " cannot be opened: the camera service is shutting down");
            }
            isFirst = !camera_;
            if (isFirst) {
                camera_ = getSource().makeCamera(index_, getTitle());
            }
            camera = camera_;
            ++users_;
        }
        if (isFirst) {
            if (initial_.size) {
                camera->want(*initial_.size);
            }
            setControls(initial_.controls);
        }
    }
    try {
        camera->want(size);
        camera->open();
    } catch (...) {
        release();
        throw std::runtime_error(getTitle() + " cannot be opened: " + describeCurrentException());
    }
}

void KRCameraSlot::setInitialSettings(InitialSettings settings) {
    const KRLock users(usersMutex_);
    const auto isKept = [&](const auto& old) {
        return std::ranges::any_of(
            settings.controls, [&](const auto& each) { return equalsIgnoringCase(each.first, old.first); });
    };
    std::erase_if(initial_.controls, isKept);
    const auto dropped = std::exchange(initial_, std::move(settings)).controls;
    if (const std::shared_ptr<KRCamera> camera = getCamera()) {
        if (initial_.size) {
            camera->want(*initial_.size);
        }
        resetControls(dropped);
        setControls(initial_.controls);
    }
}

void KRCameraSlot::setControls(const std::vector<std::pair<std::string, int>>& controls) {
    try {
        const auto known = controls.empty() ? std::vector<KRCameraControl>() : getControls().list();
        for (const auto& [name, value] : controls) {
            const KRCameraControl* control = findControl(known, name);
            if (control == nullptr) {
                logError("KRVideoDevice",
                         getTitle() + " has no control " + name + "; it has: " + listControls(known));
            } else if (getControls().set(control->id, value) != KRControls::Answer::Done) {
                logError("KRVideoDevice", getTitle() + " does not take " + std::to_string(value) + " for " +
                                              name + ", " + std::to_string(control->minimum) + " to " +
                                              std::to_string(control->maximum));
            }
        }
    } catch (const std::exception& error) {
        logError("KRVideoDevice", getTitle() + ": its controls cannot be set: " + error.what());
    }
}

void KRCameraSlot::resetControls(const std::vector<std::pair<std::string, int>>& controls) {
    try {
        const auto known = controls.empty() ? std::vector<KRCameraControl>() : getControls().list();
        for (const auto& each : controls) {
            if (const KRCameraControl* control = findControl(known, each.first)) {
                getControls().set(control->id, control->defaultValue);
            }
        }
    } catch (const std::exception& error) {
        logError("KRVideoDevice", getTitle() + ": its controls cannot be reset: " + error.what());
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
