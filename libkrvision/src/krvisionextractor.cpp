#include "krvision/krvisionextractor.hpp"

#include "krvisionextractor_p.hpp"
#include "krvisionextractorparameters.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krproxy.hpp"

namespace KR {

namespace {

constexpr const char* kClassName = "KRVisionExtractor";
constexpr const char* kRun = "_run";

} // namespace

KRVisionExtractor::KRVisionExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name,
                                     int resolution, int colorSpace, int frameRate, int camera)
    : KRExtractor(broker, name), p_(std::make_unique<KRVisionExtractorPrivate>(broker, resolution, colorSpace,
                                                                               frameRate, camera, this)) {
    publishMethods();
    declareParameters();
}

KRVisionExtractor::~KRVisionExtractor() = default;

// The texts below are published as they stand, spelling included: deliberate.
void KRVisionExtractor::publishMethods() {
    const auto advertise = [this](auto member) {
        advertiseMethod(getCurrentMethodDescription(), this, member);
    };
    const auto returnSuccess = [this] { setReturn("result", "True if the update succeeded, False if not"); };

    functionName("setFrameRate", kClassName, "Sets the extractor framerate for a chosen subscriber", 0);
    addParam("subscriberName", "Name of the subcriber");
    addParam("framerate", "New framerate");
    returnSuccess();
    bindMethodOverload(
        createFunctor(this, static_cast<bool (KRVisionExtractor::*)(const std::string&, const int&)>(
                                &KRVisionExtractor::setFrameRate)));

    functionName("setFrameRate", kClassName, "Sets the extractor framerate for all the subscribers", 0);
    addParam("framerate", "New framerate");
    returnSuccess();
    bindMethodOverload(createFunctor(
        this, static_cast<bool (KRVisionExtractor::*)(const int&)>(&KRVisionExtractor::setFrameRate)));

    functionName("setResolution", kClassName, "Sets extractor resolution", 0);
    addParam("resolution", "New resolution");
    returnSuccess();
    advertise(&KRVisionExtractor::setResolution);

    functionName("setActiveCamera", kClassName, "Sets extractor active camera", 0);
    addParam("cameraId", "Id of the camera that will become the active camera");
    returnSuccess();
    advertise(&KRVisionExtractor::setActiveCamera);

    functionName("setParameter", kClassName, "DEPRECATED: Sets pause and resolution", 0);
    addParam("paramName", "Name of the parameter to set");
    addParam("value", "New value");
    advertise(&KRVisionExtractor::setParameter);

    functionName("getFrameRate", kClassName, "Gets extractor framerate", 0);
    setReturn("framerate", "Current value of the framerate of the extractor");
    advertise(&KRVisionExtractor::getFrameRate);

    functionName("getResolution", kClassName, "Gets extractor resolution", 0);
    setReturn("resolution", "Current value of the resolution of the extractor");
    advertise(&KRVisionExtractor::getResolution);

    functionName("getActiveCamera", kClassName, "Gets extractor active camera", 0);
    setReturn("cameraId", "Id of the current active camera of the extractor");
    advertise(&KRVisionExtractor::getActiveCamera);

    functionName("isPaused", kClassName, "Gets extractor pause status", 0);
    setReturn("paused", "True if the extractor is paused, False if not");
    advertise(&KRVisionExtractor::isPaused);

    functionName("isProcessing", kClassName, "Gets extractor running status", 0);
    setReturn("processing", "True if the extractor is currently processing images, False if not");
    advertise(&KRVisionExtractor::isProcessing);

    functionName("pause", kClassName, "Changes the pause status of the extractor", 0);
    addParam("paused", "New pause satus");
    advertise(&KRVisionExtractor::pause);

    functionName(kRun, kClassName, "", 0);
    advertise(&KRVisionExtractor::xRun);
}

bool KRVisionExtractor::setColorSpace(const int& colorSpace) {
    const bool accepted = p_->setColorSpace(colorSpace);
    xNoticeParameterChange(kColorSpaceParameter);
    return accepted;
}

bool KRVisionExtractor::setFrameRate(const int& frameRate) {
    const bool accepted = p_->setFrameRate(frameRate);
    xNoticeParameterChange(kFrameRateParameter);
    return accepted;
}

bool KRVisionExtractor::setFrameRate(const std::string& subscriber, const int& frameRate) {
    const bool accepted = p_->setFrameRate(subscriber, frameRate);
    xNoticeParameterChange(kFrameRateParameter);
    return accepted;
}

bool KRVisionExtractor::setResolution(const int& resolution) {
    const bool accepted = p_->setResolution(resolution);
    xNoticeParameterChange(kResolutionParameter);
    return accepted;
}

bool KRVisionExtractor::setActiveCamera(const int& camera) {
    const bool accepted = p_->setActiveCamera(camera);
    xNoticeParameterChange(kCameraParameter);
    return accepted;
}

void KRVisionExtractor::setParameter(const std::string& name, const KRValue& value) {
    p_->setParameter(name, value);
}

void KRVisionExtractor::setSubscriptionParameters(const std::vector<std::pair<int, int>>& parameters) {
    p_->setSubscriptionParameters(parameters);
}

void KRVisionExtractor::pause(bool paused) {
    p_->pause(paused);
    xNoticeParameterChange(kPauseParameter);
}

int KRVisionExtractor::getResolution() {
    return p_->getResolution();
}

int KRVisionExtractor::getColorSpace() {
    return p_->getColorSpace();
}

int KRVisionExtractor::getActiveCamera() {
    return p_->getActiveCamera();
}

int KRVisionExtractor::getFrameRate() {
    return p_->getFrameRate();
}

bool KRVisionExtractor::isPaused() {
    return p_->isPaused();
}

bool KRVisionExtractor::isProcessing() {
    return p_->isProcessing();
}

boost::shared_ptr<KRVideoDeviceProxy> KRVisionExtractor::getVideoDeviceProxy() {
    return p_->getVideoDeviceProxy();
}

int KRVisionExtractor::getDefaultPeriod() {
    return p_->getDefaultPeriod();
}

int KRVisionExtractor::getMinimumPeriod() {
    return p_->getMinimumPeriod();
}

int KRVisionExtractor::getMaximumPeriod() {
    return 1000;
}

void KRVisionExtractor::xStartDetection(int period, float precision) {
    p_->noteStart();
    xStartImageProcessing();
    makeReachable(); // the module calls itself; one that was constructed directly may not be reachable yet
    const std::uint64_t ticket = p_->expectRun();
    try {
        getParentBroker()->getProxy(getName(), 0)->post(kRun);
    } catch (...) {
        p_->cancelRun();
        throw;
    }
    p_->waitUntilReady(ticket);
    xUpdateParameters(period, precision);
}

void KRVisionExtractor::xUpdateParameters(int period, float /*precision*/) {
    p_->setVideoDeviceFrameRate(KRVisionExtractorPrivate::toFrameRate(period));
}

void KRVisionExtractor::xStopDetection() {
    p_->stop();
    // A destructor that stops its own work gets here again after xShutDown(): one stop is enough.
    if (p_->noteStop()) {
        xStopImageProcessing();
    }
}

void KRVisionExtractor::xRun() {
    p_->run();
}

void KRVisionExtractor::xShutDown() {
    p_->refuseRuns();
    try {
        KRExtractor::xShutDown();
    } catch (...) {
        p_->stop();
        throw;
    }
    p_->stop(); // also stops a run started without a subscriber
}

} // namespace KR
