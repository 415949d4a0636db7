#include "krplatform/krvideodeviceproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

/// A camera service that writes down what it is asked, and answers with what tells the operations apart.
struct FakeService {
    std::vector<KRValue> asked;
    boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRVideoDeviceProxy proxy{broker};
    KRModuleHandle<TestModule> module = makeModule(broker, "KRVideoDevice", [this](TestModule& m) {
        const auto note = [this](auto... asks) { asked.push_back(KRValue::array(asks...)); };
        using String = const std::string&;
        m.add("subscribeCamera", [note](String name, int camera, int resolution, int space, int rate) {
            note("subscribeCamera", name, camera, resolution, space, rate);
            return name + "_0";
        });
        m.add("unsubscribe", [note](String id) { note("unsubscribe", id); });
        m.add("getImageRemote", [note](String id) {
            note("getImageRemote", id);
            return KRValue("image");
        });
        m.add("releaseImage", [note](String id) { note("releaseImage", id); });
        m.add("setFrameRate", [note](String id, int rate) {
            note("setFrameRate", id, rate);
            return true;
        });
        m.add("getFrameRate", [note](String id) {
            note("getFrameRate", id);
            return 25;
        });
        m.add("setResolution", [note](String id, int resolution) {
            note("setResolution", id, resolution);
            return resolution == 2;
        });
        m.add("setColorSpace", [note](String id, int space) {
            note("setColorSpace", id, space);
            return space == 9;
        });
        m.add("setActiveCamera", [note](String id, int camera) {
            note("setActiveCamera", id, camera);
            return camera == 1;
        });
        m.add("getCameraModel", [note](int camera) {
            note("getCameraModel", camera);
            return -1;
        });
        m.add("setCameraParameter", [note](String id, int parameter, int value) {
            note("setCameraParameter", id, parameter, value);
            return value > parameter;
        });
        m.add("setAllCameraParametersToDefault",
              [note](String id) { note("setAllCameraParametersToDefault", id); });
    });
};

TEST(KRVideoDeviceProxy, EachOperationArrivesWithItsArgumentsAndReturnsTheAnswer) {
    FakeService service;
    KRVideoDeviceProxy& proxy = service.proxy;
    EXPECT_EQ(proxy.subscribeCamera("me", 1, 2, 9, 30), "me_0");
    EXPECT_EQ(proxy.getImageRemote("me_0"), "image");
    proxy.releaseImage("me_0");
    EXPECT_TRUE(proxy.setFrameRate("me_0", 15));
    EXPECT_EQ(proxy.getFrameRate("me_0"), 25);
    EXPECT_TRUE(proxy.setResolution("me_0", 2));
    EXPECT_TRUE(proxy.setColorSpace("me_0", 9));
    EXPECT_TRUE(proxy.setActiveCamera("me_0", 1));
    EXPECT_EQ(proxy.getCameraModel(5), -1);
    EXPECT_TRUE(proxy.setCameraParameter("me_0", 10, 11));
    proxy.setAllCameraParametersToDefault("me_0");
    proxy.unsubscribe("me_0");
    EXPECT_THAT(
        service.asked,
        ElementsAre(KRValue::array("subscribeCamera", "me", 1, 2, 9, 30),
                    KRValue::array("getImageRemote", "me_0"), KRValue::array("releaseImage", "me_0"),
                    KRValue::array("setFrameRate", "me_0", 15), KRValue::array("getFrameRate", "me_0"),
                    KRValue::array("setResolution", "me_0", 2), KRValue::array("setColorSpace", "me_0", 9),
                    KRValue::array("setActiveCamera", "me_0", 1), KRValue::array("getCameraModel", 5),
                    KRValue::array("setCameraParameter", "me_0", 10, 11),
                    KRValue::array("setAllCameraParametersToDefault", "me_0"),
                    KRValue::array("unsubscribe", "me_0")));
}

TEST(KRVideoDeviceProxy, ARefusalOfTheServiceComesBackAsFalse) {
    FakeService service;
    EXPECT_FALSE(service.proxy.setResolution("me_0", 3));
    EXPECT_FALSE(service.proxy.setColorSpace("me_0", 10));
    EXPECT_FALSE(service.proxy.setActiveCamera("me_0", 0));
    EXPECT_FALSE(service.proxy.setCameraParameter("me_0", 11, 10));
}

TEST(KRVideoDeviceProxy, ThrowsWhatTheServiceThrows) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "KRVideoDevice", [](TestModule& m) {
        m.add("getImageRemote", [](const std::string& id) -> KRValue {
            throw KRError("KRVideoDevice", "getImageRemote", "unknown identifier " + id);
        });
    });
    EXPECT_THAT([&] { KRVideoDeviceProxy(broker).getImageRemote("x"); },
                ThrowsMessage<KRError>(HasSubstr("KRVideoDevice.getImageRemote: unknown identifier x")));
}

TEST(KRVideoDeviceProxy, WithoutAServiceEachOperationIsAnError) {
    KRVideoDeviceProxy proxy(KRBroker::create());
    EXPECT_EQ(proxy.getProxy().getModuleName(), "KRVideoDevice");
    EXPECT_THAT([&] { proxy.subscribeCamera("me", 0, 2, 9, 30); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named KRVideoDevice")));
    EXPECT_THROW(proxy.unsubscribe("id"), KRError);
    EXPECT_THROW(proxy.getImageRemote("id"), KRError);
    EXPECT_THROW(proxy.getCameraModel(0), KRError);
}

} // namespace
} // namespace KR
