#include "krplatform/krmodulehandle.hpp"

#include "krplatform/krproxy.hpp"

#include "diary.hpp"
#include "patience.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>

namespace KR {
namespace {

using test::Diary;
using test::Event;
using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(KRModuleHandle, AModuleIsNotReachableBeforeItsConstructorHasFinished) {
    const auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("m");
    const auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("go", [] {});
        EXPECT_THAT([&] { proxy->call("go"); },
                    ThrowsMessage<KRError>(HasSubstr("m.go: the module is not reachable")));
        EXPECT_THROW(proxy->post("go"), KRError);
        EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory"));
        EXPECT_FALSE(broker->getSession().waitForService("m", std::chrono::milliseconds(0)));
    });
    proxy->call("go");
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory", "m"));
}

TEST(KRModuleHandle, ATakenNameIsRefused) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "m", [&](TestModule&) {
        EXPECT_THROW(makeModule(broker, "m"), KRError) << "taken as soon as the constructor runs";
    });
    EXPECT_THAT([&] { makeModule(broker, "m"); }, ThrowsMessage<KRError>(HasSubstr("named m already")));
    EXPECT_THROW(makeModule(broker, "KRMemory"), KRError);
    EXPECT_TRUE(broker->getSession().waitForService("m", std::chrono::milliseconds(0)));
}

TEST(KRModuleHandle, AnEmptyNameIsRefused) {
    EXPECT_THROW(makeModule(KRBroker::create(), ""), KRError);
}

TEST(KRModuleHandle, AModuleWithoutABrokerIsRefused) {
    EXPECT_THROW(makeModule(nullptr, "m"), KRError);
}

TEST(KRModuleHandle, AConstructorThatThrowsFreesTheName) {
    const auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("m");
    EXPECT_THROW(makeModule(broker, "m",
                            [&](TestModule&) {
                                EXPECT_THROW(proxy->call("go"), KRError);
                                throw std::runtime_error("no licence");
                            }),
                 std::runtime_error);
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory"));
    const auto module = makeModule(broker, "m", [](TestModule& m) { m.add("go", [] {}); });
    proxy->call("go");
}

TEST(KRModuleHandle, ShutsDownInOrder) {
    const auto broker = KRBroker::create();
    Diary diary;
    Event entered;
    Event release;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("run", [&] {
            entered.set();
            EXPECT_TRUE(release.wait());
            diary.note("running call ends");
        });
        m.onShutDown = [&] {
            EXPECT_THAT([&] { broker->getProxy("m")->call("run"); },
                        ThrowsMessage<KRError>(HasSubstr("m.run: the module is exiting")));
            EXPECT_THROW(broker->getProxy("m")->post("run"), KRError);
            diary.note("detection stopped");
            release.set();
        };
        m.onDestroyed = [&] { diary.note("destroyed"); };
    });
    broker->getProxy("m")->post("run");
    ASSERT_TRUE(entered.wait());
    module.reset();
    EXPECT_THAT(diary.read(), ElementsAre("detection stopped", "running call ends", "destroyed"));
    EXPECT_FALSE(module);
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory"));
}

TEST(KRModuleHandle, WaitsForDirectCallsOfOtherThreads) {
    const auto broker = KRBroker::create();
    Diary diary;
    Event entered;
    Event release;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("run", [&] {
            entered.set();
            EXPECT_TRUE(release.wait());
            diary.note("call ends");
        });
        m.onShutDown = [&] { release.set(); };
        m.onDestroyed = [&] { diary.note("destroyed"); };
    });
    std::thread caller([&] { broker->getProxy("m")->call("run"); });
    ASSERT_TRUE(entered.wait());
    module.reset();
    EXPECT_THAT(diary.read(), ElementsAre("call ends", "destroyed"));
    caller.join();
}

TEST(KRModuleHandle, AShutDownThatThrowsIsLoggedAndStillWaitsForRunningCalls) {
    const auto broker = KRBroker::create();
    for (const bool isStandard : {true, false}) {
        const test::RecordedLog recorded;
        Diary diary;
        Event entered;
        Event release;
        auto module = makeModule(broker, "m", [&](TestModule& m) {
            m.add("run", [&] {
                entered.set();
                EXPECT_TRUE(release.wait());
                for (int i = 0; i < 1000; ++i) {
                    std::this_thread::yield();
                }
                diary.note("call ends");
            });
            m.onShutDown = [&] {
                release.set();
                if (isStandard) {
                    throw std::runtime_error("camera stuck");
                }
                throw 7;
            };
            m.onDestroyed = [&] { diary.note("destroyed"); };
        });
        broker->getProxy("m")->post("run");
        ASSERT_TRUE(entered.wait());
        module.reset();
        EXPECT_THAT(diary.read(), ElementsAre("call ends", "destroyed"));
        EXPECT_EQ(recorded.find(KRLogLevel::Error, "m did not shut down cleanly").size(), 1u);
        EXPECT_EQ(recorded.find(KRLogLevel::Error, "camera stuck").size(), isStandard ? 1u : 0u);
    }
}

TEST(KRModuleHandle, TwoModulesSwapNames) {
    const auto broker = KRBroker::create();
    const auto sayingWho = [](const std::string& who) {
        return [who](TestModule& m) { m.add("who", [who] { return who; }); };
    };
    auto first = makeModule(broker, "left", sayingWho("first"));
    auto second = makeModule(broker, "right", sayingWho("second"));
    const auto left = broker->getProxy("left");
    const auto right = broker->getProxy("right");
    EXPECT_EQ(left->call<std::string>("who") + right->call<std::string>("who"), "firstsecond");
    first.reset();
    second.reset();
    second = makeModule(broker, "left", sayingWho("second"));
    first = makeModule(broker, "right", sayingWho("first"));
    EXPECT_EQ(left->call<std::string>("who") + right->call<std::string>("who"), "secondfirst");
}

TEST(KRModuleHandle, MovingItMovesTheModule) {
    const auto broker = KRBroker::create();
    int destroyed = 0;
    const auto counting = [&](TestModule& m) { m.onDestroyed = [&] { ++destroyed; }; };
    auto a = makeModule(broker, "a", counting);
    KRModuleHandle<KRModule> base = std::move(a);
    EXPECT_FALSE(a); // NOLINT: moved from on purpose
    EXPECT_EQ(base->getName(), "a");
    EXPECT_EQ((*base).getName(), base.get()->getName());
    base = makeModule(broker, "b", counting);
    EXPECT_EQ(destroyed, 1) << "the former module was destroyed";
    auto& itself = base;
    base = std::move(itself);
    EXPECT_EQ(base->getName(), "b");
    const std::unique_ptr<KRModule> released = base.release();
    EXPECT_FALSE(base);
    EXPECT_EQ(destroyed, 1);
    released->shutDown();
}

} // namespace
} // namespace KR
