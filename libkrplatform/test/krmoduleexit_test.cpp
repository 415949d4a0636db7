#include "krplatform/krproxy.hpp"

#include "patience.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::Event;
using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

auto refusesAsExiting() {
    return ThrowsMessage<KRError>(HasSubstr("the module is exiting"));
}

TEST(KRModuleExit, FromAConstructorTheModuleNeverBecomesReachable) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "m", [](TestModule& m) {
        m.add("go", [] {});
        EXPECT_FALSE(m.isExiting());
        m.exit();
        EXPECT_TRUE(m.isExiting());
        m.add("stop", [] {}); // what a constructor does afterwards still works
    });
    EXPECT_TRUE(module->isExiting());
    EXPECT_THAT([&] { broker->getProxy("m")->call("go"); }, refusesAsExiting());
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory"));
    EXPECT_FALSE(broker->getSession().waitForService("m", std::chrono::milliseconds(0)));
}

TEST(KRModuleExit, FromACallThatCallContinuesAndNewOnesAreRefused) {
    const auto broker = KRBroker::create();
    bool reachedTheEnd = false;
    const auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("leave", [&] {
            m.exit();
            EXPECT_THAT([&] { broker->getProxy("m")->call("leave"); }, refusesAsExiting());
            EXPECT_THAT([&] { broker->getProxy("m")->post("leave"); }, refusesAsExiting());
            EXPECT_THAT([&] { m.xPost("more", [] {}); }, refusesAsExiting());
            reachedTheEnd = true;
        });
    });
    broker->getProxy("m")->call("leave");
    EXPECT_TRUE(reachedTheEnd);
    EXPECT_TRUE(module->isExiting());
}

TEST(KRModuleExit, FromAPostedCallNothingIsDestroyed) {
    const auto broker = KRBroker::create();
    Event left;
    std::atomic<bool> destroyed = false;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("leave", [&] {
            m.exit();
            left.set();
        });
        m.onDestroyed = [&] { destroyed = true; };
    });
    broker->getProxy("m")->post("leave");
    ASSERT_TRUE(left.wait());
    EXPECT_TRUE(module->isExiting());
    EXPECT_FALSE(destroyed);
    EXPECT_THROW(makeModule(broker, "m"), KRError) << "the name stays until the module is destroyed";
    module.reset();
    EXPECT_TRUE(destroyed);
    makeModule(broker, "m");
}

TEST(KRModuleExit, FromTheShutDownHookOrTwiceIsHarmless) {
    const auto broker = KRBroker::create();
    auto module = makeModule(broker, "m", [](TestModule& m) { m.onShutDown = [&m] { m.exit(); }; });
    module->exit();
    module->exit();
    module.reset();
}

TEST(KRModuleExit, ReturnsAtOnceWhileCallsRun) {
    const auto broker = KRBroker::create();
    Event entered;
    Event release;
    const auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("run", [&] {
            entered.set();
            EXPECT_TRUE(release.wait());
        });
    });
    const test::SetAtEnd end(release);
    broker->getProxy("m")->post("run");
    ASSERT_TRUE(entered.wait());
    module->exit(); // the call waits for something that happens after this
}

TEST(KRModuleExit, IsLoggedVerbosely) {
    const auto broker = KRBroker::create();
    const test::RecordedLog recorded;
    makeModule(broker, "m")->exit();
    EXPECT_EQ(recorded.find(KRLogLevel::Verbose, "m was asked to exit").size(), 1u);
}

TEST(KRModuleExit, DuringManyCallsEachEitherRunsOrIsRefused) {
    for (int round = 0; round < 30; ++round) {
        const auto broker = KRBroker::create("local:?memory=none");
        std::atomic<int> ran = 0;
        std::atomic<bool> destroyed = false;
        auto module = makeModule(broker, "m", [&](TestModule& m) {
            m.add("go", [&] {
                EXPECT_FALSE(destroyed);
                ++ran;
            });
            m.onDestroyed = [&] { destroyed = true; };
        });
        std::atomic<int> accepted = 0;
        Event started;
        std::vector<std::thread> callers;
        for (int i = 0; i < 4; ++i) {
            callers.emplace_back([&, i] {
                const auto proxy = broker->getProxy("m");
                try {
                    for (;;) {
                        i % 2 == 0 ? proxy->call("go") : proxy->post("go");
                        ++accepted;
                        started.set();
                    }
                } catch (const KRError& error) {
                    EXPECT_THAT(error.getDescription(), HasSubstr("exiting"));
                }
            });
        }
        EXPECT_TRUE(started.wait());
        std::thread exiting([&] { module->exit(); });
        module->exit();
        for (std::thread& caller : callers) {
            caller.join();
        }
        exiting.join();
        module.reset();
        EXPECT_EQ(ran, accepted);
    }
}

} // namespace
} // namespace KR
