#pragma once

#include <krplatform/krexport.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krvalue.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace KR {

class KRImageFeed;
class KRSource;

/// The camera service: provides any number of subscribers with images of one or more cameras.
///
/// Its clients use KRVideoDeviceProxy, which expects the name "KRVideoDevice":
///
///     auto cameras = KR::createModule<KR::KRVideoDevice>(broker, "KRVideoDevice", std::vector{"test"s});
///
/// A camera is open while it has subscribers. It has a capture thread, "KRCamera 0" and so on; the service has no
/// other threads. Frames are scaled and converted on the thread of the subscriber that fetches them, once for all
/// subscribers with the same resolution and colour space, and not at all if the camera delivers exactly that.
///
/// All operations are thread-safe; they block each other only while a camera is opened or closed. Operations that take
/// an identifier throw a KRError if the subscription does not exist; all throw one if there is no memory. Setters
/// return false for an unsupported value, which changes nothing. docs/cameras.md lists sources, colour spaces and
/// parameters.
///
/// The images that are fetched move the clock of a broker at "local:?clock=recording".
class KR_EXPORT KRVideoDevice : public KRModule {
public:
    /// \param sources  one source string per camera, in the order of their indices: "test", "test:PATTERN",
    /// "file:PATH", "image:PATH", "v4l2:DEVICE", a URI of http, https or rtsp, "oxv:PATH[#STREAM][?pace=own|fetch]"
    /// or "gst:PIPELINE". Cameras are opened later.
    /// \throws KRError  no source, or more than 128; an invalid source string; the name is taken
    KRVideoDevice(boost::shared_ptr<KRBroker> broker, const std::string& name,
                  const std::vector<std::string>& sources = {"test"});
    /// Cameras whose images the program provides (<krcamera/krimagefeed.hpp>), in the order of their indices.
    /// \throws KRError  no feed, or more than 128; the name is taken
    KRVideoDevice(boost::shared_ptr<KRBroker> broker, const std::string& name,
                  const std::vector<std::shared_ptr<KRImageFeed>>& feeds);
    /// Closes the cameras. Images that were delivered stay valid.
    ~KRVideoDevice() override;

    /// Sets initial settings of a camera, applied whenever it opens. An open camera gets them at once, and controls no
    /// longer listed get their defaults.
    /// \param resolution  code 0 to 17 of the camera's minimum size; -1: as its subscribers request
    /// \param controls  names as getControls() lists them, in upper or lower case, and values; one that the camera does
    /// not have or take is logged
    /// \throws KRError  the camera does not exist; the resolution is not supported
    void setInitialSettings(int camera, int resolution,
                            const std::vector<std::pair<std::string, int>>& controls);

    /// Changes the source of a camera. Subscriptions persist: their next images come from the new source, which is opened
    /// on a call thread if there are subscriptions.
    /// \throws KRError  the camera does not exist; an invalid source string; the service is shutting down
    void setSource(int camera, const std::string& source);

    /// Subscribes to a camera. The first subscriber opens it and waits for its first frame, at most ten seconds; a
    /// camera that has failed tries again at once. If the process of the caller ends meanwhile, no subscription is
    /// made.
    /// \param name        at most 1024 bytes
    /// \param resolution  code 0 to 17
    /// \param colorSpace  code 0, 9, 11, 13 or 18
    /// \param frameRate  images per second, 1 to 30: how often the subscriber will fetch
    /// \return an identifier that is unique in the service: the name, "_" and a number
    /// \throws KRError  the camera does not exist or cannot be opened; a setting is not supported; there are 4096
    /// subscriptions
    std::string subscribeCamera(const std::string& name, int camera, int resolution, int colorSpace,
                                int frameRate);

    /// Ends a subscription. The camera closes with its last one.
    void unsubscribe(const std::string& id);

    /// Fetches the newest image that this subscription has not fetched yet.
    ///
    /// Waits for it for two frame intervals of the subscription, but at least 200 ms.
    /// \return an array of 12 elements: width, height, bytes per pixel, colour space, capture time since
    /// the Unix epoch (whole seconds, microseconds), pixels (rows without padding; shared, not copied),
    /// camera, and the field of view (left, top, right, bottom; radians)
    /// \throws KRError  no image in time; the camera has failed or ended and is not back yet; out of memory; the
    /// service is shutting down
    KRValue getImageRemote(const std::string& id);

    /// Releases the image that was fetched last; without effect if there is none. The next fetch releases it, too.
    void releaseImage(const std::string& id);

    /// Images per second, 1 to 30.
    bool setFrameRate(const std::string& id, int frameRate);
    /// Images per second.
    int getFrameRate(const std::string& id) const;
    /// Resolution code.
    bool setResolution(const std::string& id, int resolution);
    /// Colour-space code.
    bool setColorSpace(const std::string& id, int colorSpace);

    /// Moves a subscription to another camera, opening and closing cameras as needed.
    /// \return false if the camera does not exist
    /// \throws KRError  the camera cannot be opened; the subscription keeps its present one
    bool setActiveCamera(const std::string& id, int camera);

    /// The kind of a camera: 1 for a test picture, 2 for a file, 3 for a V4L2 device, 4 for a pipeline, 5 for a URI, 6 for a still image,
    /// 7 for a recording; -1 if the camera does not exist.
    int getCameraModel(int camera) const;

    /// Changes the picture of the subscription's camera, for all its subscribers, until the camera closes; a V4L2
    /// device keeps the setting longer. It takes effect in one of the next frames. getControls() returns the effective
    /// value.
    /// \param parameter  number of a V4L2 control
    /// \return false, and nothing has changed: the value is out of range, or the camera rejects it at the moment
    /// \throws KRError  the camera does not have the parameter, or cannot be reached
    bool setCameraParameter(const std::string& id, int parameter, int value);
    /// \throws KRError  the camera cannot be reached
    void setAllCameraParametersToDefault(const std::string& id);

    /// \name Lists
    /// Arrays with one element per camera, control or subscription, in the format of <krplatform/krcamerainfo.hpp>;
    /// subscriptions are listed oldest first.
    ///@{
    KRValue getCameraList() const; ///< elements: KRCameraInfo
    /// Elements: KRCameraControl. The camera may be closed.
    /// \throws KRError  the camera does not exist; the device cannot be reached
    KRValue getControls(int camera) const;
    KRValue getStatistics() const;  ///< elements: KRSubscriptionStatistics
    KRValue getSubscribers() const; ///< elements: KRSubscriberInfo
    ///@}

protected:
    void xShutDown() override;
    /// Ends the subscriptions of the process. A call that still waits for its camera ends its own.
    void xCallerGone(const std::string& caller) override;

private:
    void makeCameras(std::size_t count,
                     const std::function<std::unique_ptr<KRSource>(std::size_t)>& makeSource);
    void publishMethods();
    /// Ends a subscription whose process is gone, unless it has ended already.
    void endOrphan(const std::string& id);

    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
