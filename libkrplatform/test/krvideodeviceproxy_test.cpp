#include "krplatform/krvideodeviceproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "patience.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

/// A camera service that records its calls; its answers distinguish the operations.
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

TEST(KRVideoDeviceProxy, EachOperationPassesItsArgumentsAndReturnsTheAnswer) {
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
    proxy.setServiceTimeout(std::chrono::milliseconds(0));
    EXPECT_EQ(proxy.getProxy().getModuleName(), "KRVideoDevice");
    EXPECT_THAT([&] { proxy.subscribeCamera("me", 0, 2, 9, 30); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named KRVideoDevice")));
    EXPECT_THROW(proxy.unsubscribe("id"), KRError);
    EXPECT_THROW(proxy.getImageRemote("id"), KRError);
    EXPECT_THROW(proxy.getCameraModel(0), KRError);
}

/// A camera service that leaves and returns; identifiers of subscriptions differ after each start.
struct RestartedService {
    void start() {
        const int number = ++starts;
        module = makeModule(broker, "KRVideoDevice", [this, number](TestModule& m) {
            const auto note = [this](auto... asks) { asked.push_back(KRValue::array(asks...)); };
            using String = const std::string&;
            m.add("subscribeCamera",
                  [this, note, number](String name, int camera, int resolution, int space, int rate) {
                      if (unplugged) {
                          throw KRError("KRVideoDevice", "subscribeCamera", kUnplugged);
                      }
                      note("subscribeCamera", name, camera, resolution, space, rate);
                      return name + "_" + std::to_string(number);
                  });
            for (const char* method :
                 {"unsubscribe", "releaseImage", "getImageRemote", "setAllCameraParametersToDefault"}) {
                m.add(method, [note, method](String id) {
                    note(method, id);
                    return KRValue("image");
                });
            }
            for (const char* method : {"setFrameRate", "setResolution", "setColorSpace", "setActiveCamera"}) {
                m.add(method, [note, method](String id, int value) {
                    note(method, id, value);
                    return value >= 0;
                });
            }
            m.add("setCameraParameter", [this, note](String id, int parameter, int value) {
                if (parameter == broken) {
                    throw KRError("KRVideoDevice", "setCameraParameter", "the driver fails");
                }
                note("setCameraParameter", id, parameter, value);
                return value >= 0 && parameter != refused;
            });
        });
    }
    void restart() {
        module.reset();
        asked.clear();
        start();
    }

    static constexpr const char* kUnplugged =
        "camera 0 (v4l2:/dev/video9) cannot be opened: No such file or directory";
    std::vector<KRValue> asked;
    std::atomic<bool> unplugged = false;
    int broken = -1;  // setting this parameter fails
    int refused = -1; // setting this parameter is refused
    int starts = 0;
    boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRVideoDeviceProxy proxy{broker};
    KRModuleHandle<TestModule> module;
};

TEST(KRVideoDeviceProxy, ASubscriptionContinuesAtTheNextServiceWithItsSettings) {
    RestartedService service;
    service.start();
    KRVideoDeviceProxy& proxy = service.proxy;
    const std::string id = proxy.subscribeCamera("me", 0, 2, 9, 30);
    EXPECT_TRUE(proxy.setFrameRate(id, 15));
    EXPECT_TRUE(proxy.setResolution(id, 1));
    EXPECT_TRUE(proxy.setColorSpace(id, 13));
    EXPECT_TRUE(proxy.setActiveCamera(id, 3));
    EXPECT_FALSE(proxy.setResolution(id, -1)); // a refused value is not requested again
    EXPECT_FALSE(proxy.setActiveCamera(id, -1));
    EXPECT_TRUE(proxy.setCameraParameter(id, 10, 1));
    EXPECT_TRUE(proxy.setCameraParameter(id, 11, 2));
    EXPECT_TRUE(proxy.setCameraParameter(id, 10, 3));
    EXPECT_FALSE(proxy.setCameraParameter(id, 12, -1));
    service.restart();
    EXPECT_EQ(proxy.getImageRemote(id), "image");
    EXPECT_TRUE(proxy.setFrameRate(id, 20));
    EXPECT_THAT(service.asked, ElementsAre(KRValue::array("subscribeCamera", "me", 3, 1, 13, 15),
                                           KRValue::array("setCameraParameter", "me_2", 11, 2),
                                           KRValue::array("setCameraParameter", "me_2", 10, 3),
                                           KRValue::array("getImageRemote", "me_2"),
                                           KRValue::array("setFrameRate", "me_2", 20)));
    proxy.setAllCameraParametersToDefault(id);
    service.restart();
    proxy.getImageRemote(id);
    proxy.releaseImage(id);
    EXPECT_THAT(service.asked, ElementsAre(KRValue::array("subscribeCamera", "me", 3, 1, 13, 20),
                                           KRValue::array("getImageRemote", "me_3"),
                                           KRValue::array("releaseImage", "me_3")));
}

TEST(KRVideoDeviceProxy, WithoutAServiceThereIsNothingToReleaseOrUnsubscribe) {
    RestartedService service;
    service.start();
    KRVideoDeviceProxy& proxy = service.proxy;
    const std::string id = proxy.subscribeCamera("me", 0, 2, 9, 30);
    service.module.reset();
    EXPECT_THROW(proxy.getImageRemote(id), KRError);
    EXPECT_THROW(proxy.setResolution(id, 1), KRError);
    proxy.releaseImage(id);
    proxy.setAllCameraParametersToDefault(id);
    proxy.unsubscribe(id);
    service.restart();
    EXPECT_EQ(proxy.getImageRemote(id), "image"); // left to the service to refuse
    EXPECT_THAT(service.asked, ElementsAre(KRValue::array("getImageRemote", "me_1")));
}

TEST(KRVideoDeviceProxy, AFrameRateSetWithoutAServiceAppliesAtTheNextOne) {
    RestartedService service;
    service.start();
    KRVideoDeviceProxy& proxy = service.proxy;
    const std::string id = proxy.subscribeCamera("me", 0, 2, 9, 30);
    service.module->exit();
    EXPECT_TRUE(proxy.setFrameRate(id, 20));
    service.restart();
    EXPECT_EQ(proxy.getImageRemote(id), "image");
    service.module.reset();
    EXPECT_TRUE(proxy.setFrameRate(id, 10));
    EXPECT_THROW(proxy.setFrameRate("nobody", 10), KRError);
    service.start();
    EXPECT_EQ(proxy.getImageRemote(id), "image");
    EXPECT_THAT(service.asked, ElementsAre(KRValue::array("subscribeCamera", "me", 0, 2, 9, 20),
                                           KRValue::array("getImageRemote", "me_2"),
                                           KRValue::array("subscribeCamera", "me", 0, 2, 9, 10),
                                           KRValue::array("getImageRemote", "me_3")));
}

TEST(KRVideoDeviceProxy, AServiceThatExitsDuringACallNeedsNoUnsubscription) {
    const auto broker = KRBroker::create();
    KRVideoDeviceProxy proxy(broker);
    const auto service = makeModule(broker, "KRVideoDevice", [](TestModule& m) {
        m.add("subscribeCamera", [](const std::string& name, int, int, int, int) { return name; });
        m.add("releaseImage", [](const std::string&) { throw KRError("KRVideoDevice", "", "refused"); });
        m.add("unsubscribe", [&m](const std::string&) {
            m.exit();
            throw KRError("KRVideoDevice", "", "going");
        });
    });
    const std::string id = proxy.subscribeCamera("me", 0, 2, 9, 30);
    EXPECT_THROW(proxy.releaseImage(id), KRError);
    proxy.unsubscribe(id);
}

TEST(KRVideoDeviceProxy, AParameterThatFailsAfterARestartDoesNotStopTheOthers) {
    const test::RecordedLog recorded;
    RestartedService service;
    service.start();
    const std::string id = service.proxy.subscribeCamera("me", 0, 2, 9, 30);
    for (int parameter = 10; parameter < 14; ++parameter) {
        EXPECT_TRUE(service.proxy.setCameraParameter(id, parameter, 1));
    }
    service.broken = 10;
    service.refused = 12;
    service.restart();
    EXPECT_EQ(service.proxy.getImageRemote(id), "image");
    EXPECT_THAT(service.asked, ElementsAre(KRValue::array("subscribeCamera", "me", 0, 2, 9, 30),
                                           KRValue::array("setCameraParameter", "me_2", 11, 1),
                                           KRValue::array("setCameraParameter", "me_2", 12, 1),
                                           KRValue::array("setCameraParameter", "me_2", 13, 1),
                                           KRValue::array("getImageRemote", "me_2")));
    EXPECT_EQ(
        recorded.find(KRLogLevel::Warning, "parameter 10 of camera 0 could not be set to 1 again").size(),
        1U);
    EXPECT_EQ(
        recorded.find(KRLogLevel::Warning, "parameter 12 of camera 0 could not be set to 1 again").size(),
        1U);
}

TEST(KRVideoDeviceProxy, AFailedCameraAfterARestartLeavesNothingToReleaseOrUnsubscribe) {
    RestartedService service;
    service.start();
    const std::string id = service.proxy.subscribeCamera("me", 0, 2, 9, 30);
    service.unplugged = true;
    service.restart();
    EXPECT_THAT([&] { service.proxy.getImageRemote(id); },
                ThrowsMessage<KRError>(HasSubstr(RestartedService::kUnplugged)));
    service.proxy.releaseImage(id);
    service.unplugged = false;
    EXPECT_EQ(service.proxy.getImageRemote(id), "image");
    service.unplugged = true;
    service.restart();
    service.proxy.setAllCameraParametersToDefault(id);
    service.proxy.unsubscribe(id);
}

TEST(KRVideoDeviceProxy, TheCauseOfARefusedSubscriptionIsLoggedAndRepeatedInLaterErrors) {
    const test::RecordedLog recorded;
    RestartedService service;
    service.unplugged = true;
    service.start();
    const auto throwsTheCause = ThrowsMessage<KRError>(HasSubstr(RestartedService::kUnplugged));
    EXPECT_THAT([&] { service.proxy.subscribeCamera("me", 0, 2, 9, 30); }, throwsTheCause);
    const auto warnings = recorded.find(KRLogLevel::Warning, RestartedService::kUnplugged);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].category, "krplatform.camera");
    EXPECT_THAT(warnings[0].message, HasSubstr("camera 0 for me: subscription refused: "));
    EXPECT_THAT([&] { service.proxy.getImageRemote("me"); }, throwsTheCause);
    EXPECT_THAT([&] { service.proxy.setFrameRate("me", 30); }, throwsTheCause);
    EXPECT_THAT([&] { service.proxy.releaseImage("me"); }, throwsTheCause);
    EXPECT_EQ(service.proxy.getImageRemote("other"), "image") << "left to the service to judge";
    service.unplugged = false;
    EXPECT_EQ(service.proxy.subscribeCamera("me", 0, 2, 9, 30), "me_1");
    EXPECT_EQ(service.proxy.getImageRemote("me"), "image");
}

TEST(KRVideoDeviceProxy, ARefusedUnsubscriptionIsLogged) {
    const test::RecordedLog recorded;
    const auto broker = KRBroker::create();
    KRVideoDeviceProxy proxy(broker);
    const auto service = makeModule(broker, "KRVideoDevice", [](TestModule& m) {
        m.add("unsubscribe",
              [](const std::string&) { throw KRError("KRVideoDevice", "", "unknown identifier"); });
    });
    EXPECT_THROW(proxy.unsubscribe("me_1"), KRError);
    const auto warnings = recorded.find(KRLogLevel::Warning, "me_1: unsubscribe refused: ");
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].category, "krplatform.camera");
}

TEST(KRVideoDeviceProxy, SubscribingWaitsForAServiceNotYetStarted) {
    RestartedService service;
    auto subscribing =
        test::startAndLetSleep([&] { return service.proxy.subscribeCamera("me", 0, 2, 9, 30); });
    service.start();
    EXPECT_EQ(test::resultOf(subscribing), "me_1");
    EXPECT_EQ(service.proxy.getImageRemote("me_1"), "image");
}

TEST(KRVideoDeviceProxy, SubscribingWaitsForTheSuccessorOfAnExitingService) {
    RestartedService service;
    service.start();
    service.module->exit();
    auto subscribing =
        test::startAndLetSleep([&] { return service.proxy.subscribeCamera("me", 0, 2, 9, 30); });
    service.restart();
    EXPECT_EQ(test::resultOf(subscribing), "me_2");
}

TEST(KRVideoDeviceProxy, SubscribingFailsWhenNoServiceComesInTime) {
    RestartedService service;
    service.proxy.setServiceTimeout(std::chrono::milliseconds(20));
    EXPECT_THAT([&] { service.proxy.subscribeCamera("me", 0, 2, 9, 30); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named KRVideoDevice")));
}

TEST(KRVideoDeviceProxy, AModuleAskedToExitStopsWaitingForAService) {
    RestartedService service;
    service.proxy.setServiceTimeout(std::chrono::hours(1));
    const auto module = makeModule(service.broker, "Motion", [&](TestModule& m) {
        m.add("run", [&] { return service.proxy.subscribeCamera("me", 0, 2, 9, 30); });
    });
    auto running =
        test::startAndLetSleep([&] { return service.broker->getProxy("Motion")->call<std::string>("run"); });
    module->exit();
    EXPECT_THROW(test::resultOf(running), KRError);
}

} // namespace
} // namespace KR
