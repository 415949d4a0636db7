#pragma once

#include <krplatform/krexport.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krvalue.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <memory>
#include <string>
#include <vector>

namespace KR {

/// The camera service: gives any number of subscribers the images of one or more cameras.
///
/// Others reach it as "KRVideoDevice", through KRVideoDeviceProxy:
///
///     auto cameras = KR::createModule<KR::KRVideoDevice>(broker, "KRVideoDevice", std::vector{"test"s});
///
/// A camera is open while someone subscribes to it. Each has a capture thread, "KRCamera 0" and so on;
/// nothing else runs while nobody calls. Frames are scaled and converted on the thread of the subscriber
/// that asks, once for all who want the same resolution and colour space, and not at all if the camera
/// delivers just that.
///
/// All operations are thread-safe, and may run beside each other and block each other only where one camera
/// is opened or closed. Each that takes an identifier throws a KRError if there is no such subscription.
/// Setters return false for a value that is not supported and change nothing then. docs/cameras.md lists
/// sources, colour spaces and parameters.
class KR_EXPORT KRVideoDevice : public KRModule {
public:
    /// \param sources  one source string per camera, in the order of their indices: "test", "test:PATTERN",
    /// "file:PATH", "image:PATH", "v4l2:DEVICE", a URI of http, https or rtsp, "oxv:PATH[#STREAM][?pace=own|fetch]"
    /// or "gst:PIPELINE". Nothing is opened yet.
    /// \throws KRError no source, or more than 128; a source string that is not understood; the name is
    /// taken
    KRVideoDevice(boost::shared_ptr<KRBroker> broker, const std::string& name,
                  const std::vector<std::string>& sources = {"test"});
    /// Closes the cameras. Images that were handed out stay valid.
    ~KRVideoDevice() override;

    /// Subscribes to a camera. The first subscriber opens it and waits for its first frame, at most ten
    /// seconds; a camera that has failed tries again at once.
    /// \param resolution  code 0 to 17
    /// \param colorSpace  code 0, 9, 11, 13 or 18
    /// \param frameRate  images per second, 1 to 30: how often the subscriber means to ask
    /// \return an identifier that is unique in the service: the name, "_" and a number
    /// \throws KRError no such camera; a setting is not supported; the camera cannot be opened
    std::string subscribeCamera(const std::string& name, int camera, int resolution, int colorSpace,
                                int frameRate);

    /// Ends a subscription. The last one of a camera closes it.
    void unsubscribe(const std::string& id);

    /// The newest image that this subscription has not had.
    ///
    /// Waits for one at most two frame intervals of the subscription, but 200 ms at the least.
    /// \return an array of 12 elements: width, height, bytes per pixel, colour space, capture time since
    /// the Unix epoch (whole seconds, microseconds), pixels (rows without padding; shared, not copied),
    /// camera, and the field of view (left, top, right, bottom; radians)
    /// \throws KRError no image in time; the camera has failed or ended, and is not back yet; the service
    /// is shutting down
    KRValue getImageRemote(const std::string& id);

    /// Lets go of the image that was fetched last; without effect if there is none. The next fetch does so
    /// too.
    void releaseImage(const std::string& id);

    bool setFrameRate(const std::string& id, int frameRate);
    int getFrameRate(const std::string& id) const;
    bool setResolution(const std::string& id, int resolution);
    bool setColorSpace(const std::string& id, int colorSpace);

    /// Moves a subscription to another camera, opening and closing cameras as needed.
    /// \return false if there is no such camera
    /// \throws KRError the camera cannot be opened; the subscription keeps the one it has
    bool setActiveCamera(const std::string& id, int camera);

    /// 1 for a test picture, 2 for a file, 3 for a V4L2 device, 4 for a pipeline, 5 for a URI, 6 for a still image,
    /// 7 for a recording; -1 if there is no such camera.
    int getCameraModel(int camera) const;

    /// Changes the picture of the camera that the subscription uses, for everyone, until the camera closes; a
    /// V4L2 device keeps it beyond that. It shows in one of the next frames. getControls() tells the value that
    /// took effect.
    /// \param parameter  number of a V4L2 control
    /// \return false, and nothing has changed: the value is out of range, or the camera refuses it now
    /// \throws KRError the camera has no such parameter, or cannot be reached
    bool setCameraParameter(const std::string& id, int parameter, int value);
    /// \throws KRError the camera cannot be reached
    void setAllCameraParametersToDefault(const std::string& id);

    /// \name What the service tells of itself
    /// An array with one element per camera, control or subscription, in the form that
    /// <krplatform/krcamerainfo.hpp> describes; subscriptions are listed from the oldest on.
    ///@{
    KRValue getCameraList() const; ///< elements: KRCameraInfo
    /// Elements: KRCameraControl. The camera need not be open.
    /// \throws KRError no such camera; the device cannot be reached
    KRValue getControls(int camera) const;
    KRValue getStatistics() const;  ///< elements: KRSubscriptionStatistics
    KRValue getSubscribers() const; ///< elements: KRSubscriberInfo
    ///@}

protected:
    void xShutDown() override;
    /// Ends the subscriptions that the process had made.
    void xCallerGone(const std::string& caller) override;

private:
    void publishMethods();

    struct Private;
    std::unique_ptr<Private> p_;
};

} // namespace KR
