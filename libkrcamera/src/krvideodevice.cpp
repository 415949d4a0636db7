#include "krcamera/krvideodevice.hpp"

#include "krcameraslot.hpp"
#include "krconverter.hpp"

#include <krplatform/krerror.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace KR {

namespace {

// The index travels in eight bits, with a sign.
constexpr std::size_t maximumCameras = 128;

// Field of view of a camera that does not tell its own; radians.
constexpr float leftAngle = 0.4169222F;
constexpr float topAngle = 0.3209778F;
constexpr float rightAngle = -0.4169222F;
constexpr float bottomAngle = -0.3209778F;

bool isFrameRateSupported(int frameRate) noexcept {
    return frameRate >= 1 && frameRate <= 30;
}

std::chrono::milliseconds getPatience(int frameRate) noexcept {
    return std::chrono::milliseconds(std::max(200, 2 * 1000 / frameRate));
}

struct Subscription {
    struct Settings {
        int camera;
        int resolution;
        int colorSpace;
        int frameRate;
    };

    explicit Subscription(const Settings& initial) : settings(initial) {}

    Settings getSettings() {
        const std::lock_guard lock(mutex);
        return settings;
    }

    std::mutex moving; ///< held while the subscription changes its camera or ends
    std::mutex mutex;  ///< taken after moving
    // Guarded by mutex; the camera and whether it has ended change with moving held, too.
    Settings settings;
    bool ended = false;
    std::uint64_t lastFrame = 0;   ///< number of the frame fetched last
    std::shared_ptr<KRFrame> held; ///< fetched and not released
};

KRValue makeImageValue(const Subscription::Settings& settings, std::int64_t captureTime_usec,
                       KRBinary pixels) {
    int width = 0;
    int height = 0;
    setSizeFromResolution(settings.resolution, width, height);
    return KRValue::array(width, height, getNumLayersInColorSpace(settings.colorSpace), settings.colorSpace,
                          static_cast<int>(captureTime_usec / 1000000),
                          static_cast<int>(captureTime_usec % 1000000), std::move(pixels), settings.camera,
                          leftAngle, topAngle, rightAngle, bottomAngle);
}

} // namespace

struct KRVideoDevice::Private {
    explicit Private(std::string moduleName) : name(std::move(moduleName)) {}

    [[noreturn]] void fail(const char* method, const std::string& text,
                           KRSourceLocation where = KRSourceLocation::current()) const {
        throw KRError(name, method, text, where);
    }

    KRCameraSlot* findSlot(int camera) const noexcept {
        return camera >= 0 && static_cast<std::size_t>(camera) < slots.size() ? slots[camera].get() : nullptr;
    }

    std::shared_ptr<Subscription> find(const char* method, const std::string& id) const {
        const std::lock_guard lock(mutex);
        const auto found = subscriptions.find(id);
        if (found == subscriptions.end()) {
            failUnknown(method, id);
        }
        return found->second;
    }

    [[noreturn]] void failUnknown(const char* method, const std::string& id) const {
        fail(method, "subscription \"" + id +
                         "\" does not exist; expected an identifier that subscribeCamera returned");
    }

    std::string describeCameras() const {
        return slots.size() == 1 ? "there is only camera 0"
                                 : "there are cameras 0 to " + std::to_string(slots.size() - 1);
    }

    void acquire(const char* method, KRCameraSlot& slot) const {
        try {
            slot.acquire();
        } catch (const std::runtime_error& error) {
            fail(method, error.what());
        }
    }

    const std::string name;                           ///< of the module
    std::vector<std::unique_ptr<KRCameraSlot>> slots; ///< one per camera, constant

    mutable std::mutex mutex;
    // Guarded by mutex:
    std::map<std::string, std::shared_ptr<Subscription>> subscriptions;
    std::uint64_t subscriptionsMade = 0;
};

KRVideoDevice::KRVideoDevice(boost::shared_ptr<KRBroker> broker, const std::string& name,
                             const std::vector<std::string>& sources)
    : KRModule(std::move(broker), name), p_(std::make_unique<Private>(name)) {
    if (sources.empty() || sources.size() > maximumCameras) {
        p_->fail("KRVideoDevice", std::to_string(sources.size()) +
                                      " camera sources were given; expected 1 to " +
                                      std::to_string(maximumCameras));
    }
    try {
        initGStreamer();
        for (const std::string& source : sources) {
            const int index = static_cast<int>(p_->slots.size());
            p_->slots.push_back(std::make_unique<KRCameraSlot>(index, parseSource(source)));
        }
    } catch (const std::exception& error) {
        p_->fail("KRVideoDevice", "camera " + std::to_string(p_->slots.size()) + ": " + error.what());
    }
    publishMethods();
}

KRVideoDevice::~KRVideoDevice() {
    shutDown();
}

void KRVideoDevice::xShutDown() {
    for (const auto& slot : p_->slots) {
        slot->shutDown();
    }
}

std::string KRVideoDevice::subscribeCamera(const std::string& name, int camera, int resolution,
                                           int colorSpace, int frameRate) {
    const char* method = "subscribeCamera";
    KRCameraSlot* slot = p_->findSlot(camera);
    if (slot == nullptr) {
        p_->fail(method, "camera " + std::to_string(camera) + " does not exist; " + p_->describeCameras());
    }
    if (!isResolutionSupported(resolution)) {
        p_->fail(method,
                 "resolution " + std::to_string(resolution) + " is not supported; supported are 0 to 17");
    }
    if (!isColorSpaceSupported(colorSpace)) {
        p_->fail(method, "colour space " + std::to_string(colorSpace) + " is not supported; supported are " +
                             listColorSpaces());
    }
    if (!isFrameRateSupported(frameRate)) {
        p_->fail(method, "frame rate " + std::to_string(frameRate) +
                             " is not supported; supported are 1 to 30 images per second");
    }
    p_->acquire(method, *slot);
    const auto subscription =
        std::make_shared<Subscription>(Subscription::Settings{camera, resolution, colorSpace, frameRate});
    const std::lock_guard lock(p_->mutex);
    const std::string id = name + "_" + std::to_string(++p_->subscriptionsMade);
    p_->subscriptions.emplace(id, subscription);
    return id;
}

void KRVideoDevice::unsubscribe(const std::string& id) {
    std::shared_ptr<Subscription> subscription;
    {
        const std::lock_guard lock(p_->mutex);
        const auto found = p_->subscriptions.find(id);
        if (found == p_->subscriptions.end()) {
            p_->failUnknown("unsubscribe", id);
        }
        subscription = found->second;
        p_->subscriptions.erase(found);
    }
    const std::lock_guard moving(subscription->moving);
    {
        const std::lock_guard lock(subscription->mutex);
        subscription->ended = true;
        subscription->held.reset();
    }
    p_->slots[subscription->settings.camera]->release();
}

KRValue KRVideoDevice::getImageRemote(const std::string& id) {
    const char* method = "getImageRemote";
    const std::shared_ptr<Subscription> subscription = p_->find(method, id);
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        std::unique_lock lock(subscription->mutex);
        const Subscription::Settings settings = subscription->settings;
        const std::uint64_t lastFrame = subscription->lastFrame;
        const bool ended = subscription->ended;
        lock.unlock();

        KRCameraSlot& slot = *p_->slots[settings.camera];
        if (ended) {
            p_->fail(method, "subscription \"" + id + "\" has ended");
        }
        if (slot.isShutDown()) {
            p_->fail(method, "the camera service is shutting down");
        }
        const auto patience = getPatience(settings.frameRate);
        const std::shared_ptr<KRCamera> camera = slot.getCamera();
        const std::shared_ptr<KRFrame> frame =
            camera ? camera->waitForFrame(lastFrame, start + patience) : nullptr;
        if (!frame) {
            // A camera that closes has been left by this subscription, or gives way to one that works again.
            if (camera && !camera->isStopping()) {
                if (const std::optional<std::string> failure = camera->getFailure()) {
                    p_->fail(method, slot.getTitle() + " has failed: " + *failure);
                }
            }
            if (std::chrono::steady_clock::now() >= start + patience) {
                p_->fail(method,
                         slot.getTitle() + ": no image within " + std::to_string(patience.count()) + " ms");
            }
            continue;
        }
        lock.lock();
        if (subscription->ended || subscription->settings.camera != settings.camera ||
            subscription->lastFrame >= frame->getNumber()) {
            continue; // left the camera meanwhile, or another thread fetched this frame
        }
        subscription->lastFrame = frame->getNumber();
        std::shared_ptr<KRFrame> before = std::exchange(subscription->held, frame); // goes after the lock
        lock.unlock();
        try {
            return makeImageValue(settings, frame->getCaptureTime(),
                                  frame->getPixels(settings.resolution, settings.colorSpace));
        } catch (const std::runtime_error& error) {
            p_->fail(method, slot.getTitle() + ": " + error.what());
        }
    }
}

void KRVideoDevice::releaseImage(const std::string& id) {
    const std::shared_ptr<Subscription> subscription = p_->find("releaseImage", id);
    std::shared_ptr<KRFrame> held;
    const std::lock_guard lock(subscription->mutex);
    held.swap(subscription->held);
}

bool KRVideoDevice::setFrameRate(const std::string& id, int frameRate) {
    const std::shared_ptr<Subscription> subscription = p_->find("setFrameRate", id);
    if (!isFrameRateSupported(frameRate)) {
        return false;
    }
    const std::lock_guard lock(subscription->mutex);
    subscription->settings.frameRate = frameRate;
    return true;
}

int KRVideoDevice::getFrameRate(const std::string& id) const {
    return p_->find("getFrameRate", id)->getSettings().frameRate;
}

bool KRVideoDevice::setResolution(const std::string& id, int resolution) {
    const std::shared_ptr<Subscription> subscription = p_->find("setResolution", id);
    if (!isResolutionSupported(resolution)) {
        return false;
    }
    const std::lock_guard lock(subscription->mutex);
    subscription->settings.resolution = resolution;
    return true;
}

bool KRVideoDevice::setColorSpace(const std::string& id, int colorSpace) {
    const std::shared_ptr<Subscription> subscription = p_->find("setColorSpace", id);
    if (!isColorSpaceSupported(colorSpace)) {
        return false;
    }
    const std::lock_guard lock(subscription->mutex);
    subscription->settings.colorSpace = colorSpace;
    return true;
}

bool KRVideoDevice::setActiveCamera(const std::string& id, int camera) {
    const char* method = "setActiveCamera";
    const std::shared_ptr<Subscription> subscription = p_->find(method, id);
    KRCameraSlot* slot = p_->findSlot(camera);
    if (slot == nullptr) {
        return false;
    }
    const std::lock_guard moving(subscription->moving);
    if (subscription->ended) {
        p_->failUnknown(method, id);
    }
    const int before = subscription->settings.camera;
    if (camera == before) {
        return true;
    }
    p_->acquire(method, *slot);
    {
        const std::lock_guard lock(subscription->mutex);
        subscription->settings.camera = camera;
    }
    p_->slots[before]->release();
    return true;
}

int KRVideoDevice::getCameraModel(int camera) const {
    const KRCameraSlot* slot = p_->findSlot(camera);
    return slot == nullptr ? -1 : static_cast<int>(slot->getSource().kind);
}

bool KRVideoDevice::setCameraParameter(const std::string& id, int parameter, int value) {
    const char* method = "setCameraParameter";
    const KRCameraSlot& slot = *p_->slots[p_->find(method, id)->getSettings().camera];
    const KRCameraParameter* known = findParameter(getParameters(slot.getSource()), parameter);
    if (known == nullptr) {
        p_->fail(method, slot.getTitle() + " has no parameter " + std::to_string(parameter) +
                             "; it has: " + listParameters(getParameters(slot.getSource())));
    }
    if (value < known->minimum || value > known->maximum) {
        return false;
    }
    if (const std::shared_ptr<KRCamera> camera = slot.getCamera()) {
        camera->setParameter(parameter, value);
    }
    return true;
}

void KRVideoDevice::setAllCameraParametersToDefault(const std::string& id) {
    const KRCameraSlot& slot =
        *p_->slots[p_->find("setAllCameraParametersToDefault", id)->getSettings().camera];
    if (const std::shared_ptr<KRCamera> camera = slot.getCamera()) {
        camera->setAllParametersToDefault();
    }
}

} // namespace KR
