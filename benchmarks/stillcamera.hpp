#pragma once

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krvalue.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// A camera service that always serves the same shared pixels.
class StillCamera : public KR::KRModule {
public:
    StillCamera(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, int width, int height)
        : KRModule(std::move(broker), name) {
        const std::vector<unsigned char> bytes(static_cast<std::size_t>(2) * width * height, 100);
        KR::KRValue pixels;
        pixels.SetBinary(bytes.data(), bytes.size());
        image_ = KR::KRValue::array(width, height, 2, KR::kYUV422ColorSpace, 0, 0, pixels, 0, 0.0F, 0.0F,
                                    0.0F, 0.0F);
        publish("subscribeCamera", {"name", "camera", "resolution", "colorSpace", "frameRate"},
                &StillCamera::subscribeCamera);
        publish("getImageRemote", {"id"}, &StillCamera::getImageRemote);
        publish("releaseImage", {"id"}, &StillCamera::takeNotice);
        publish("unsubscribe", {"id"}, &StillCamera::takeNotice);
        publish("setAllCameraParametersToDefault", {"id"}, &StillCamera::takeNotice);
        publish("setFrameRate", {"id", "frameRate"}, &StillCamera::setFrameRate);
    }

private:
    template <class Member>
    void publish(const std::string& method, const std::vector<std::string>& parameters, Member member) {
        functionName(method, "StillCamera", "");
        for (const std::string& parameter : parameters) {
            addParam(parameter, "");
        }
        advertiseMethod(getCurrentMethodDescription(), this, member);
    }
    std::string subscribeCamera(const std::string& name, int, int, int, int) { return name; }
    KR::KRValue getImageRemote(const std::string&) { return image_; }
    void takeNotice(const std::string&) {}
    bool setFrameRate(const std::string&, int) { return true; }

    KR::KRValue image_;
};
