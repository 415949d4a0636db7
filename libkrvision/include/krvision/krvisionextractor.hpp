#pragma once

#include "krextractor/krextractor.hpp"
#include "krvision/krimage.hpp"

#include "krplatform/krexport.hpp"
#include "krplatform/krvideodeviceproxy.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KR {

class KRVisionExtractorPrivate;

/// Base of a perception module that processes camera images.
///
/// While there are subscribers, an acquisition thread fetches one image per period in force, passes it to
/// xProcessImage(), returns it to the camera service and sleeps until the period, counted from the start of the
/// fetch, is over. Derive, implement the three hooks, create the module with createModule():
///
///     class Brightness : public KR::KRVisionExtractor {
///     public:
///         Brightness(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
///             : KRVisionExtractor(broker, name, KR::kVGA, KR::kYUV422ColorSpace, 30, 0) {}
///         void xStartImageProcessing() override {}
///         void xProcessImage(KR::KRImage* image) override { ... }
///         void xStopImageProcessing() override {}
///     };
///
/// Threads: the settings are thread-safe and may be changed while images are processed. They must not be called
/// from xUpdateParameters(), which may run inside setFrameRate(). xProcessImage() runs on the acquisition thread; it
/// must not throw, and must not unsubscribe the last subscriber of its own extractor.
///
/// Failures: an exception from xProcessImage() ends the acquisition; so does a camera service that refuses to release
/// an image. If the camera service refuses the subscription, the module exits. getFailure() then gives the reason
/// until the next acquisition has started well.
///
/// Parameters: "camera", "resolution", "colorSpace", "frameRate" and "pause" are parameters of every vision extractor
/// (KRModule::declareParameter), with names for resolutions and colour spaces. What the methods of the same purpose refuse
/// with false, these refuse with the reason. Unlike these methods, they also take a colour space and a frame rate while
/// nobody is subscribed, for the next subscription; a frame rate then is that of a first subscriber that gives no period.
/// The methods of parameters are answered, but not listed among the methods, unless the derived class declares a
/// parameter.
///
/// A derived class that is not created with createModule() calls xStopDetection() in its own destructor. One that is
/// may do so too.
class KR_EXPORT KRVisionExtractor : public KRExtractor {
public:
    /// \param resolution  code 0 to 8 (<krvision/krvisiondefinitions.hpp>)
    /// \param colorSpace  a code that the camera service delivers
    /// \param frameRate   images per second, 1 to 30; its period is the default one. Any other value is logged as
    ///                    an error and makes the module exit
    /// \param camera      index of the camera at the camera service
    /// \throws KRError the name is empty or taken
    KRVisionExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name, int resolution,
                      int colorSpace, int frameRate, int camera);
    /// Ends a running acquisition and the camera subscription.
    ~KRVisionExtractor() override;

    /// Changes the colour space of the camera subscription.
    /// \return false: not subscribed; the camera refuses
    /// \throws KRError from the camera service
    virtual bool setColorSpace(const int& colorSpace);
    /// Sets the camera's frame rate, and every subscriber's period to 1000 / frameRate milliseconds.
    /// \return false: not subscribed; the camera refuses
    /// \throws KRError from the camera service; a frame rate of 0 that the camera accepted
    virtual bool setFrameRate(const int& frameRate);
    /// Sets the frame rate of the one camera subscription, and one subscriber's period.
    /// \return false: no such subscriber; the camera refuses
    /// \throws KRError as above; there is no camera subscription
    virtual bool setFrameRate(const std::string& subscriber, const int& frameRate);
    /// Changes the resolution, now or for the next subscription.
    /// \return false: the camera refuses; not subscribed and not a code of 0 to 8
    /// \throws KRError from the camera service while subscribed
    virtual bool setResolution(const int& resolution);
    /// Changes the camera, now (the acquisition pauses for it) or for the next subscription.
    /// \return false: the camera service refuses; not subscribed and no such camera
    /// \throws KRError from the camera service while subscribed; the acquisition then stays paused
    virtual bool setActiveCamera(const int& camera);

    /// Prepares for processing. Called at the start of every detection, before the acquisition thread runs.
    virtual void xStartImageProcessing() = 0;
    /// Processes one image, on the acquisition thread. The image is deleted after the call: copy what you keep.
    virtual void xProcessImage(KRImage* image) = 0;
    /// Ends the processing. Called once at the end of every detection, after the acquisition has ended and the camera
    /// subscription is released.
    virtual void xStopImageProcessing() = 0;

    /// Deprecated: "resolution" or "pause", with an array whose first element is the value and which has at least
    /// two elements. Anything else is logged as an error and has no effect.
    void setParameter(const std::string& name, const KRValue& value);
    /// Camera parameters (id, value) to set now, if subscribed, and after every later subscription, in this order;
    /// they replace the previous list. \throws KRError from the camera service
    void setSubscriptionParameters(const std::vector<std::pair<int, int>>& parameters);
    /// Pauses the acquisition before the next image, or resumes it. Without a running acquisition, this has no effect
    /// but a warning in the log.
    void pause(bool paused);

    /// Code of the resolution, now or for the next subscription.
    int getResolution();
    /// Code of the colour space, now or for the next subscription.
    int getColorSpace();
    /// Index of the camera, now or for the next subscription.
    int getActiveCamera();
    /// The rate that the camera service reports; -1 if not subscribed to a camera.
    int getFrameRate();
    /// Whether the acquisition is paused.
    bool isPaused();
    /// Whether an acquisition is running, paused or not. Stays true after an exception has ended one, until it is
    /// stopped.
    bool isProcessing();
    /// The camera service.
    boost::shared_ptr<KRVideoDeviceProxy> getVideoDeviceProxy();

    /// 1000 / the frame rate given at construction, or set as parameter since, in milliseconds.
    int getDefaultPeriod() override;
    /// 33 ms; 50 ms for camera 2.
    int getMinimumPeriod() override;
    /// 1000 ms.
    int getMaximumPeriod() override;
    /// Waits until the first image has been processed and its period is over, or the acquisition has ended before
    /// that. The camera service may come up meanwhile. With a warning in the log, gives up after 15 seconds without a
    /// camera subscription, or 5 with one; the acquisition continues.
    /// \throws KRError why the camera service refused the subscription, if it did
    void xStartDetection(int period, float precision) override;
    /// Sets the camera's frame rate to 1000 / period, or to 30 for a period of 0.
    /// \throws KRError not subscribed to a camera, or why the camera service refused the subscription
    void xUpdateParameters(int period, float precision) override;
    using KRExtractor::xUpdateParameters;
    /// Waits until the acquisition has ended, which takes up to one iteration.
    /// \throws KRError called from xProcessImage(); the acquisition then ends after the current image
    void xStopDetection() override;
    /// The acquisition: runs on the calling thread until it is stopped.
    void xRun();

protected:
    void xShutDown() override;

private:
    friend class KRVisionExtractorPrivate; // which reports failures

    void publishMethods();
    void declareParameters();

    std::unique_ptr<KRVisionExtractorPrivate> p_;
};

} // namespace KR
