#include "krplatform/krbroker.hpp"

#include "krplatform/krmemoryproxy.hpp"
#include "krplatform/krproxy.hpp"

#include "patience.hpp"
#include "testmodule.hpp"

#include <boost/smart_ptr/weak_ptr.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::Event;
using test::makeModule;
using test::TestModule;

// The number of threads without a broker; ThreadSanitizer's own thread starts with the first one.
std::ptrdiff_t countThreads() {
    std::thread([] {}).join();
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST(KRBrokerLifetime, AModuleKeepsItsBroker) {
    auto broker = KRBroker::create();
    const boost::weak_ptr<KRBroker> watch = broker;
    auto module = makeModule(broker, "m", [](TestModule& m) { m.add("go", [] { return 1; }); });
    broker.reset();
    ASSERT_FALSE(watch.expired());
    EXPECT_EQ(module->getParentBroker()->getProxy("m")->call<int>("go"), 1);
    KRMemoryProxy(module->getParentBroker()).insertData("key", 1);
    module.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(KRBrokerLifetime, TheLastModuleDestroysTheBrokerInsideItsOwnCall) {
    const auto threads = countThreads();
    for (int round = 0; round < 50; ++round) {
        auto broker = KRBroker::create();
        const boost::weak_ptr<KRBroker> watch = broker;
        Event assigned;
        Event destroyed;
        KRModuleHandle<TestModule> module;
        module = makeModule(broker, "m", [&](TestModule& m) {
            m.add("leave", [&] {
                EXPECT_TRUE(assigned.wait());
                module.reset();
            });
            m.onDestroyed = [&] { destroyed.set(); };
        });
        broker->getProxy("m")->post("leave");
        broker.reset(); // from now on, only the module holds it
        assigned.set();
        ASSERT_TRUE(destroyed.wait());
        EXPECT_TRUE(test::eventually([&] { return watch.expired(); }));
    }
    EXPECT_TRUE(test::eventually([&] { return countThreads() == threads; }))
        << countThreads() << " threads are left";
}

TEST(KRBrokerLifetime, TheLastModuleMayBeDestroyedDuringAnEventDelivery) {
    const auto threads = countThreads();
    for (int round = 0; round < 50; ++round) {
        auto broker = KRBroker::create();
        const boost::weak_ptr<KRBroker> watch = broker;
        Event assigned;
        Event destroyed;
        KRModuleHandle<TestModule> module;
        module = makeModule(broker, "m", [&](TestModule& m) {
            m.add("onEvent", [&](const std::string&, const KRValue&) {
                EXPECT_TRUE(assigned.wait());
                module.reset();
            });
            m.onDestroyed = [&] { destroyed.set(); };
        });
        {
            KRMemoryProxy memory(broker);
            memory.subscribeToEvent("event", "m", "onEvent");
            memory.raiseEvent("event", round);
        }
        broker.reset();
        assigned.set();
        ASSERT_TRUE(destroyed.wait());
        EXPECT_TRUE(test::eventually([&] { return watch.expired(); }));
    }
    EXPECT_TRUE(test::eventually([&] { return countThreads() == threads; }))
        << countThreads() << " threads are left";
}

TEST(KRBrokerLifetime, ABrokerMayBeDestroyedWhileItsMemoryHasPostedWork) {
    for (int round = 0; round < 50; ++round) {
        auto broker = KRBroker::create();
        const auto acceptingSubscribers = [](TestModule& m) {
            m.add("subscribe", [](const std::string&) {});
            m.add("unsubscribe", [](const std::string&) {});
            m.add("onEvent", [](const std::string&, const KRValue&) {});
        };
        auto extractor = makeModule(broker, "extractor", acceptingSubscribers);
        auto client = makeModule(broker, "client", acceptingSubscribers);
        KRMemoryProxy(broker).subscribeToEvent("event", "client", "onEvent");
        KRMemoryProxy(broker).declareEvent("event", "extractor"); // settled on a call thread
        KRMemoryProxy(broker).raiseEvent("event", 1);             // delivered on another
        extractor.reset();
        client.reset();
        broker.reset();
    }
}

TEST(KRBrokerLifetime, BrokersAreCreatedAndDestroyedOnManyThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                std::atomic<int> ran = 0;
                auto broker = KRBroker::create();
                auto module = makeModule(broker, "m", [&](TestModule& m) { m.add("go", [&] { ++ran; }); });
                broker->getProxy("m")->post("go");
                broker.reset();
                module.reset();
                EXPECT_EQ(ran, 1);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
} // namespace KR
