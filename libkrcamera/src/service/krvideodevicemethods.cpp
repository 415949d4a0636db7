#include "krcamera/krvideodevice.hpp"

namespace KR {

void KRVideoDevice::publishMethods() {
    const char* className = "KRVideoDevice";
    const auto addId = [this] { addParam("id", "Identifier that subscribeCamera returned."); };

    functionName("subscribeCamera", className, "Subscribes to a camera; the first subscriber opens it.");
    addParam("name", "Name of the subscriber, the beginning of its identifier.");
    addParam("camera", "Index of the camera, from 0.");
    addParam("resolution", "Resolution code, 0 to 17.");
    addParam("colorSpace", "Colour space code: 0 luma, 9 YUV422, 11 RGB, 13 BGR, 18 BGRx.");
    addParam("frameRate", "Images per second that the subscriber will fetch, 1 to 30.");
    setReturn("id", "Identifier of the subscription.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::subscribeCamera));

    functionName("unsubscribe", className, "Ends a subscription; the camera closes with its last one.");
    addId();
    bindMethodOverload(createFunctor(this, &KRVideoDevice::unsubscribe));

    functionName(
        "getImageRemote", className,
        "Fetches the newest image that the subscription has not fetched yet; waits for one if needed.");
    addId();
    setReturn("image",
              "Array of 12 elements: width, height, bytes per pixel, colour space, seconds, microseconds, "
              "pixels, camera, and left, top, right and bottom angle.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::getImageRemote));

    functionName("releaseImage", className, "Releases the image that was fetched last.");
    addId();
    bindMethodOverload(createFunctor(this, &KRVideoDevice::releaseImage));

    functionName("setFrameRate", className, "Sets how often the subscriber will fetch an image.");
    addId();
    addParam("frameRate", "Images per second, 1 to 30.");
    setReturn("accepted", "False for an unsupported frame rate.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::setFrameRate));

    functionName("getFrameRate", className, "Returns how often the subscriber will fetch an image.");
    addId();
    setReturn("frameRate", "Images per second.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::getFrameRate));

    functionName("setResolution", className, "Sets the resolution of future images.");
    addId();
    addParam("resolution", "Resolution code, 0 to 17.");
    setReturn("accepted", "False for an unsupported resolution.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::setResolution));

    functionName("setColorSpace", className, "Sets the colour space of future images.");
    addId();
    addParam("colorSpace", "Colour space code: 0 luma, 9 YUV422, 11 RGB, 13 BGR, 18 BGRx.");
    setReturn("accepted", "False for an unsupported colour space.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::setColorSpace));

    functionName("setActiveCamera", className, "Moves the subscription to another camera.");
    addId();
    addParam("camera", "Index of the camera, from 0.");
    setReturn("accepted", "False if the camera does not exist.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::setActiveCamera));

    functionName("getCameraModel", className, "Returns the kind of a camera.");
    addParam("camera", "Index of the camera, from 0.");
    setReturn("model",
              "1 test picture, 2 file, 3 V4L2 device, 4 pipeline, 5 URI, 6 still image, 7 recording; -1 if "
              "the camera does not exist.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::getCameraModel));

    functionName("setCameraParameter", className,
                 "Changes the picture of the subscription's camera, for all its subscribers.");
    addId();
    addParam("parameter", "Number of the V4L2 control of the same meaning.");
    addParam("value", "New value.");
    setReturn("accepted", "False for a value that the camera rejects.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::setCameraParameter));

    functionName("setAllCameraParametersToDefault", className,
                 "Resets the picture of the subscription's camera, for all its subscribers.");
    addId();
    bindMethodOverload(createFunctor(this, &KRVideoDevice::setAllCameraParametersToDefault));

    functionName("getCameraList", className, "Lists the cameras and their states.");
    setReturn("cameras",
              "Array of arrays: index, source, model, state (closed, opening, open, failed), failure, width "
              "and height as delivered, number of subscribers.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::getCameraList));

    functionName("getControls", className, "Lists the controls of a camera's picture.");
    addParam("camera", "Index of the camera, from 0.");
    setReturn("controls", "Array of arrays: id, name, minimum, maximum, step, default, value.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::getControls));

    functionName("getStatistics", className, "Returns delivery statistics of each subscription.");
    setReturn("statistics",
              "Array of arrays: identifier, camera, images delivered, images missed, and median, 99th "
              "percentile and maximum in milliseconds of age at delivery, interval, and time held.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::getStatistics));

    functionName("getSubscribers", className, "Lists the subscriptions and their settings.");
    setReturn("subscribers", "Array of arrays: identifier, camera, resolution, colour space, frame rate.");
    bindMethodOverload(createFunctor(this, &KRVideoDevice::getSubscribers));
}

} // namespace KR
