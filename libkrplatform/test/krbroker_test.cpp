#include "krplatform/krbroker.hpp"

#include "krplatform/krmemoryproxy.hpp"
#include "krplatform/krproxy.hpp"

#include "patience.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

namespace KR {
namespace {

using std::chrono::milliseconds;
using test::makeModule;
using test::startAndLetSleep;
using test::TestModule;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

TEST(KRBroker, RunsAMemoryModuleByDefault) {
    EXPECT_THAT(KRBroker::create()->getModuleList(), ElementsAre("KRMemory"));
    EXPECT_THAT(KRBroker::create("local:")->getModuleList(), ElementsAre("KRMemory"));
    EXPECT_THAT(KRBroker::create("local:?memory=none")->getModuleList(), IsEmpty());
}

TEST(KRBroker, AnUnknownAddressIsRefusedWithItsText) {
    for (const std::string url :
         {"", "local", "Local:", " local:", "tcp://host:1", "dds:", "local:x", "local:?", "local:?memory",
          "local:?memory=none&", "local:?memory=all", "local:memory=none"}) {
        EXPECT_THAT([&] { (void)KRBroker::create(url); },
                    ThrowsMessage<KRError>(AllOf(HasSubstr("KRBroker.create"), HasSubstr("\"" + url + "\""),
                                                 HasSubstr("known are local:"))));
    }
}

TEST(KRBroker, ListsCallableModulesInOrder) {
    const auto broker = KRBroker::create("local:?memory=none");
    auto b = makeModule(broker, "b");
    const auto c = makeModule(broker, "c", [](TestModule& m) { m.exit(); });
    const auto a = makeModule(broker, "a");
    EXPECT_THAT(broker->getModuleList(), ElementsAre("a", "b"));
    b->exit();
    EXPECT_THAT(broker->getModuleList(), ElementsAre("a"));
}

TEST(KRBroker, TwoBrokersShareNothing) {
    const auto one = KRBroker::create();
    const auto other = KRBroker::create();
    KRMemoryProxy(one).insertData("key", 1);
    EXPECT_THROW(KRMemoryProxy(other).getData("key"), KRError);
    const auto module = makeModule(one, "m");
    const auto namesake = makeModule(other, "m");
}

TEST(KRSession, WaitsForAServiceThatAnotherThreadStarts) {
    const auto broker = KRBroker::create();
    auto limited =
        startAndLetSleep([&] { return broker->getSession().waitForService("m", test::kPatience); });
    auto unlimited = startAndLetSleep([&] { broker->getSession().waitForService("m"); });
    const auto module = makeModule(broker, "m");
    EXPECT_TRUE(test::resultOf(limited));
    test::resultOf(unlimited);
}

TEST(KRSession, ManyThreadsWaitForManyServices) {
    const auto broker = KRBroker::create();
    std::vector<std::future<bool>> waiting;
    for (int i = 0; i < 20; ++i) {
        waiting.push_back(std::async(std::launch::async, [&broker, i] {
            return broker->getSession().waitForService("m" + std::to_string(i % 5), test::kPatience);
        }));
    }
    std::vector<KRModuleHandle<TestModule>> modules;
    for (int i = 0; i < 5; ++i) {
        modules.push_back(makeModule(broker, "m" + std::to_string(i)));
    }
    for (auto& each : waiting) {
        EXPECT_TRUE(test::resultOf(each));
    }
}

TEST(KRSession, AnExistingServiceIsNotWaitedFor) {
    const auto broker = KRBroker::create();
    broker->getSession().waitForService("KRMemory");
    EXPECT_TRUE(broker->getSession().waitForService("KRMemory", milliseconds(0)));
    EXPECT_TRUE(broker->getSession().waitForService("KRMemory", milliseconds(-5)));
}

TEST(KRSession, StopsWaitingAtTheTimeLimit) {
    const auto broker = KRBroker::create("local:?memory=none");
    EXPECT_FALSE(broker->getSession().waitForService("KRMemory", milliseconds(1)));
    EXPECT_FALSE(broker->getSession().waitForService("KRMemory", milliseconds(-1)));
    EXPECT_FALSE(broker->getSession().waitForService("KRMemory", milliseconds::min()));
    EXPECT_FALSE(broker->getSession().waitForService("", milliseconds(0)));
}

TEST(KRSession, TheLongestTimeLimitWaitsForever) {
    const auto broker = KRBroker::create();
    auto waiting =
        startAndLetSleep([&] { return broker->getSession().waitForService("m", milliseconds::max()); });
    const auto module = makeModule(broker, "m");
    EXPECT_TRUE(test::resultOf(waiting));
}

TEST(KRSession, AnExitingModuleIsNotAService) {
    const auto broker = KRBroker::create();
    auto module = makeModule(broker, "m");
    module->exit();
    EXPECT_FALSE(broker->getSession().waitForService("m", milliseconds(0)));
    auto waiting =
        startAndLetSleep([&] { return broker->getSession().waitForService("m", test::kPatience); });
    module.reset();
    module = makeModule(broker, "m");
    EXPECT_TRUE(test::resultOf(waiting));
}

} // namespace
} // namespace KR
