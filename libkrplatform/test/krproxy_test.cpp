#include "krplatform/krproxy.hpp"

#include "patience.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;
using testing::HasSubstr;
using testing::ThrowsMessage;

TestModule::Setup answering(int answer) {
    return [answer](TestModule& m) { m.add("answer", [answer] { return answer; }); };
}

TEST(KRProxy, MayBeCreatedBeforeItsModule) {
    const auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("m");
    EXPECT_THROW(proxy->call("answer"), KRError);
    const auto module = makeModule(broker, "m", answering(42));
    EXPECT_EQ(proxy->call<int>("answer"), 42);
}

TEST(KRProxy, FindsTheModuleAgainAfterARestart) {
    const auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("m");
    auto module = makeModule(broker, "m", answering(1));
    EXPECT_EQ(proxy->call<int>("answer"), 1);
    module.reset();
    EXPECT_THAT([&] { proxy->call("answer"); }, ThrowsMessage<KRError>(HasSubstr("no module named m")));
    module = makeModule(broker, "m", answering(2));
    EXPECT_EQ(proxy->call<int>("answer"), 2);
}

TEST(KRProxy, DoesNotKeepTheModuleAlive) {
    const auto broker = KRBroker::create();
    bool destroyed = false;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("go", [] {});
        m.onDestroyed = [&] { destroyed = true; };
    });
    const auto proxy = broker->getProxy("m");
    proxy->call("go");
    module.reset();
    EXPECT_TRUE(destroyed);
}

TEST(KRProxy, KeepsTheBrokerAlive) {
    auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("KRMemory");
    broker.reset();
    proxy->call("insertData", "key", 1);
    EXPECT_EQ(proxy->call<int>("getData", "key"), 1);
}

TEST(KRProxy, SeesOnlyTheModulesOfItsBroker) {
    const auto one = KRBroker::create();
    const auto other = KRBroker::create();
    const auto module = makeModule(one, "m", answering(1));
    EXPECT_THROW(other->getProxy("m")->call("answer"), KRError);
    const auto namesake = makeModule(other, "m", answering(2));
    EXPECT_EQ(one->getProxy("m")->call<int>("answer"), 1);
    EXPECT_EQ(other->getProxy("m")->call<int>("answer"), 2);
}

TEST(KRProxy, AnAcceptedPostedCallRunsAfterTheProxyIsDestroyed) {
    const auto broker = KRBroker::create();
    std::atomic<int> ran = 0;
    auto module = makeModule(broker, "m", [&](TestModule& m) { m.add("go", [&] { ++ran; }); });
    for (int i = 0; i < 100; ++i) {
        broker->getProxy("m")->post("go");
    }
    module.reset();
    EXPECT_EQ(ran, 100);
}

TEST(KRProxy, APostedCallHasItsArguments) {
    const auto broker = KRBroker::create();
    std::string got;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("take", [&](const std::string& s, int i, const KRBinary& b) {
            got = s + std::to_string(i) + std::to_string(b.size());
        });
    });
    broker->getProxy("m")->post("take", "a", 7, KRBinary::copyOf("xyz", 3));
    module.reset();
    EXPECT_EQ(got, "a73");
}

TEST(KRProxy, APostedCallReleasesItsArgumentsBeforeTheModuleIsDestroyed) {
    const auto broker = KRBroker::create();
    test::Event posted; // until then the poster holds the arguments too
    test::Event destroyed;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("take", [&](const KRBinary&) { EXPECT_TRUE(posted.wait()); });
        m.onDestroyed = [&] { destroyed.set(); };
    });
    static constexpr unsigned char kFrame[] = {1};
    boost::shared_ptr<const unsigned char[]> frame(kFrame, [&](const unsigned char*) {
        module.reset(); // inside a call this only requests the destruction, which follows the call
        EXPECT_FALSE(destroyed.hasHappened());
    });
    broker->getProxy("m")->post("take", KRBinary(std::move(frame), 1));
    posted.set();
    EXPECT_TRUE(destroyed.wait());
}

TEST(KRProxy, OneProxyServesManyThreadsWhileItsModuleRestarts) {
    const auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("m");
    std::atomic<bool> done = false;
    std::atomic<int> answered = 0;
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([&] {
            while (!done) {
                try {
                    const int answer = proxy->call<int>("answer");
                    EXPECT_GE(answer, 0);
                    ++answered;
                    proxy->post("answer");
                } catch (const KRError&) { // missing, not yet reachable or exiting
                }
            }
        });
    }
    for (int round = 0; round < 100; ++round) {
        // The answer is a member of the module: a call after its destruction would read freed memory.
        const auto module = makeModule(broker, "m", [&](TestModule& m) {
            auto answer = std::make_shared<int>(round);
            m.add("answer", [answer = std::move(answer)] { return *answer; });
        });
        const int before = answered;
        EXPECT_TRUE(test::eventually([&] { return answered > before; }));
    }
    done = true;
    for (std::thread& caller : callers) {
        caller.join();
    }
}

TEST(KRProxy, ReturnsTheFailureThatAModuleReported) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "m");
    const auto proxy = broker->getProxy("m");
    EXPECT_EQ(proxy->getFailure(), "");
    module->reportFailure("camera 0 cannot be opened");
    EXPECT_EQ(module->getFailure(), "camera 0 cannot be opened");
    EXPECT_EQ(proxy->getFailure(), "camera 0 cannot be opened");
    module->reportFailure("");
    EXPECT_EQ(proxy->getFailure(), "");
    EXPECT_TRUE(proxy->getMethodList().empty()) << "every module has it, so none publishes it";
}

} // namespace
} // namespace KR
