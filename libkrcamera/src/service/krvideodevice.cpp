#include "krcamera/krvideodevice.hpp"

#include "camera/krframe.hpp"
#include "conversion/krconverter.hpp"
#include "gstreamer/krgstreamer.hpp"
#include "recording/krfeedsource.hpp"
#include "service/krvideodevice_p.hpp"
#include "source/krsourcekinds.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krclock.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace KR {

namespace {

// The camera index is stored in a signed byte of an image.
constexpr std::size_t maximumCameras = 128;
constexpr std::size_t maximumNameSize = 1024; // bytes

bool isFrameRateSupported(int frameRate) noexcept {
    return frameRate >= 1 && frameRate <= 30;
}

std::chrono::milliseconds getPatience(int frameRate) noexcept {
    return std::chrono::milliseconds(std::max(200, 2 * 1000 / frameRate));
}

KRValue makeImageValue(const KRImageSubscription::Settings& settings, const KRFrame& frame, KRBinary pixels) {
    const KRSize size = getSize(settings.resolution);
    const std::int64_t time_usec = frame.getCaptureTime();
    const KRAngles& angles = frame.getAngles();
    return KRValue::array(size.width, size.height, getNumLayersInColorSpace(settings.colorSpace),
                          settings.colorSpace, static_cast<int>(time_usec / 1000000),
                          static_cast<int>(time_usec % 1000000), std::move(pixels), settings.camera,
                          angles.left, angles.top, angles.right, angles.bottom);
}

} // namespace

KRVideoDevice::KRVideoDevice(boost::shared_ptr<KRBroker> broker, const std::string& name,
                             const std::vector<std::string>& sources)
    : KRModule(std::move(broker), name), p_(std::make_unique<Private>(name)) {
    makeCameras(sources.size(), [&](std::size_t i) { return makeSource(sources[i]); });
    publishMethods();
}

KRVideoDevice::KRVideoDevice(boost::shared_ptr<KRBroker> broker, const std::string& name,
                             const std::vector<std::shared_ptr<KRImageFeed>>& feeds)
    : KRModule(std::move(broker), name), p_(std::make_unique<Private>(name)) {
    makeCameras(feeds.size(), [&](std::size_t i) { return makeFeedSource(feeds[i]); });
    publishMethods();
}

void KRVideoDevice::makeCameras(std::size_t count,
                                const std::function<std::unique_ptr<KRSource>(std::size_t)>& makeSource) {
    if (count == 0 || count > maximumCameras) {
        p_->fail("KRVideoDevice", std::to_string(count) + " camera sources were given; expected 1 to " +
                                      std::to_string(maximumCameras));
    }
    try {
        initGStreamer();
        for (std::size_t i = 0; i < count; ++i) {
            p_->slots.push_back(std::make_unique<KRCameraSlot>(static_cast<int>(i), makeSource(i)));
        }
    } catch (const std::exception& error) {
        p_->fail("KRVideoDevice", "camera " + std::to_string(p_->slots.size()) + ": " + error.what());
    }
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
    p_->getSlot(method, camera);
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
    if (name.size() > maximumNameSize) {
        p_->fail(method, "the name of the subscriber has " + std::to_string(name.size()) +
                             " bytes; at most " + std::to_string(maximumNameSize) + " are supported");
    }
    std::string id = p_->subscribe(name, xGetCaller(), {camera, resolution, colorSpace, frameRate});
    if (xIsCallerGone()) { // xCallerGone() may have run before the subscription was there
        endOrphan(id);
        p_->fail(method, "the process that subscribed has ended");
    }
    return id;
}

void KRVideoDevice::unsubscribe(const std::string& id) {
    std::shared_ptr<KRImageSubscription> subscription;
    {
        const KRLock lock(p_->mutex);
        const auto found = p_->subscriptions.find(id);
        if (found == p_->subscriptions.end()) {
            p_->failUnknown("unsubscribe", id);
        }
        subscription = found->second;
        p_->subscriptions.erase(found);
    }
    const KRLock moving(subscription->moving);
    subscription->end();
    p_->getSlot(subscription->getSettings()).release();
}

void KRVideoDevice::xCallerGone(const std::string& caller) {
    for (const std::string& id : p_->listOf(caller)) {
        endOrphan(id);
    }
}

void KRVideoDevice::endOrphan(const std::string& id) {
    try {
        unsubscribe(id);
        logInfo("KRVideoDevice",
                "subscription " + escapeText(id) + " has ended with the process that made it");
    } catch (const KRError& error) {
        logVerbose("KRVideoDevice", error.what()); // it has just ended
    }
}

KRValue KRVideoDevice::getImageRemote(const std::string& id) {
    const char* method = "getImageRemote";
    const std::shared_ptr<KRImageSubscription> subscription = p_->find(method, id);
    auto* const clock = dynamic_cast<KRRecordingClock*>(&getParentBroker()->getClock());
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        const KRImageSubscription::Position position = subscription->getPosition();
        KRCameraSlot& slot = p_->getSlot(position.settings);
        if (position.ended) {
            p_->fail(method, "subscription \"" + id + "\" has ended");
        }
        if (slot.isShutDown()) {
            p_->fail(method, "the camera service is shutting down");
        }
        const auto patience = getPatience(position.settings.frameRate);
        const std::shared_ptr<KRCamera> camera = slot.getCamera();
        std::shared_ptr<KRFrame> frame;
        try {
            frame = camera ? camera->waitForFrame(position.lastFrame, start + patience) : nullptr;
        } catch (...) {
            if (clock != nullptr) {
                clock->end(); // no more images will move it
            }
            p_->fail(method, slot.getTitle() + " has failed: " + describeCurrentException());
        }
        // No frame before the deadline: the camera is closing because this subscription has left it.
        if (!frame && std::chrono::steady_clock::now() >= start + patience) {
            p_->fail(method,
                     slot.getTitle() + ": no image within " + std::to_string(patience.count()) + " ms");
        }
        if (!frame || !subscription->take(frame, position)) {
            continue;
        }
        if (clock != nullptr) {
            clock->advanceTo(frame->getCaptureTime());
            if (camera->isLast(frame->getNumber())) {
                clock->end();
            }
        }
        try {
            KRBinary pixels = frame->getPixels(position.settings.resolution, position.settings.colorSpace);
            subscription->noteDelivery(*frame);
            return makeImageValue(position.settings, *frame, std::move(pixels));
        } catch (...) { // including out of memory, which only ends this call
            p_->fail(method, slot.getTitle() + ": " + describeCurrentException());
        }
    }
}

void KRVideoDevice::releaseImage(const std::string& id) {
    p_->find("releaseImage", id)->release();
}

bool KRVideoDevice::setFrameRate(const std::string& id, int frameRate) {
    const std::shared_ptr<KRImageSubscription> subscription = p_->find("setFrameRate", id);
    if (!isFrameRateSupported(frameRate)) {
        return false;
    }
    subscription->setFrameRate(frameRate);
    return true;
}

int KRVideoDevice::getFrameRate(const std::string& id) const {
    return p_->find("getFrameRate", id)->getSettings().frameRate;
}

bool KRVideoDevice::setResolution(const std::string& id, int resolution) {
    const std::shared_ptr<KRImageSubscription> subscription = p_->find("setResolution", id);
    if (!isResolutionSupported(resolution)) {
        return false;
    }
    subscription->setResolution(resolution);
    p_->getSlot(subscription->getSettings()).want(getSize(resolution));
    return true;
}

bool KRVideoDevice::setColorSpace(const std::string& id, int colorSpace) {
    const std::shared_ptr<KRImageSubscription> subscription = p_->find("setColorSpace", id);
    if (!isColorSpaceSupported(colorSpace)) {
        return false;
    }
    subscription->setColorSpace(colorSpace);
    return true;
}

bool KRVideoDevice::setActiveCamera(const std::string& id, int camera) {
    const char* method = "setActiveCamera";
    const std::shared_ptr<KRImageSubscription> subscription = p_->find(method, id);
    KRCameraSlot* slot = p_->findSlot(camera);
    if (slot == nullptr) {
        return false;
    }
    const KRLock moving(subscription->moving);
    const KRImageSubscription::Position position = subscription->getPosition();
    if (position.ended) {
        p_->failUnknown(method, id);
    }
    if (camera == position.settings.camera) {
        return true;
    }
    p_->acquire(method, *slot, position.settings.resolution);
    subscription->setCamera(camera);
    p_->getSlot(position.settings).release();
    return true;
}

} // namespace KR
