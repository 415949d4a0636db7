#include "krplatform/krmemoryproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "eventmodules.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::EventListener;
using test::FakeExtractor;

constexpr int kRounds = 60;

void tryTo(const std::function<void()>& function) {
    try {
        function();
    } catch (const KRError&) { // a module that it needs is not there just now
    }
}

void joinAll(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(KRMemoryChurn, AfterClientsComeAndGoTheExtractorHasNoSubscribers) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto extractor = createModule<FakeExtractor>(broker, "extractor");
    memory.declareEvent("event", "extractor");
    memory.declareEvent("second", "extractor");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, name = "client" + std::to_string(i)] {
            for (int round = 0; round < kRounds; ++round) {
                const auto client = createModule<EventListener>(broker, name);
                memory.subscribeToEvent("event", name, "onEvent");
                memory.subscribeToEvent("second", name, "onEvent");
                EXPECT_TRUE(extractor->getSubscribers().contains(name));
                memory.raiseEvent("event", round);
                client->waitForEvents(1);
                if (round % 2 == 0) {
                    memory.unsubscribeFromEvent("event", name);
                }
            }
        });
    }
    joinAll(threads);
    EXPECT_TRUE(extractor->waitForSubscribers({}));
    EXPECT_EQ(memory.getEventSubscribers("event"), KRValue::array());
    EXPECT_EQ(memory.getEventSubscribers("second"), KRValue::array());
}

TEST(KRMemoryChurn, AClientIsSubscribedByOthersDuringItsDestruction) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto extractor = createModule<FakeExtractor>(broker, "extractor");
    memory.declareEvent("event", "extractor");
    std::atomic<bool> done = false;
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i) {
        others.emplace_back([&] {
            while (!done) {
                tryTo([&] { memory.subscribeToEvent("event", "client", "onEvent"); });
                tryTo([&] { memory.raiseEvent("event", 1); });
            }
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        const auto client = createModule<EventListener>(broker, "client");
        client->waitForEvents(1);
    }
    done = true;
    joinAll(others);
    EXPECT_EQ(memory.getEventSubscribers("event"), KRValue::array()) << "no destroyed client is subscribed";
    EXPECT_TRUE(extractor->waitForSubscribers({}));
}

TEST(KRMemoryChurn, TheExtractorRestartsWhileClientsSubscribe) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    memory.declareEvent("event", "extractor");
    std::atomic<bool> done = false;
    const auto staying = createModule<EventListener>(broker, "staying");
    memory.subscribeToEvent("event", "staying", "onEvent");
    std::vector<std::thread> others;
    for (int i = 0; i < 3; ++i) {
        others.emplace_back([&, name = "client" + std::to_string(i)] {
            while (!done) {
                const auto client = createModule<EventListener>(broker, name);
                tryTo([&] { memory.subscribeToEvent("event", name, "onEvent"); });
                tryTo([&] { memory.unsubscribeFromEvent("event", name); });
                tryTo([&] { memory.subscribeToEvent("event", name, "onEvent"); });
            }
        });
    }
    KRModuleHandle<FakeExtractor> extractor;
    for (int round = 0; round < kRounds; ++round) {
        extractor.reset();
        extractor = createModule<FakeExtractor>(broker, "extractor");
        memory.declareEvent("event", "extractor");
    }
    done = true;
    joinAll(others);
    EXPECT_TRUE(extractor->waitForSubscribers({"staying"}));
}

TEST(KRMemoryChurn, TheBrokerSurvivesModulesThatComeAndGoTogether) {
    auto broker = KRBroker::create();
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([=] { // extractors
            KRMemoryProxy memory(broker);
            const std::string name = "extractor" + std::to_string(i);
            for (int round = 0; round < kRounds; ++round) {
                const auto extractor = createModule<FakeExtractor>(broker, name);
                memory.declareEvent("event", name); // now of one, now of the other
                memory.raiseEvent("event", round);
                extractor->exit();
            }
        });
        threads.emplace_back([=] { // clients
            KRMemoryProxy memory(broker);
            const std::string name = "client" + std::to_string(i);
            for (int round = 0; round < kRounds; ++round) {
                const auto client = createModule<EventListener>(broker, name);
                tryTo([&] { memory.subscribeToEvent("event", name, "onEvent"); });
                memory.raiseEvent("event", round);
                memory.getEventSubscribers("event");
            }
        });
    }
    threads.emplace_back([=] {
        KRMemoryProxy memory(broker);
        for (int round = 0; round < kRounds; ++round) {
            for (const std::string& name : broker->getModuleList()) {
                tryTo([&] { (void)broker->getProxy(name)->getMethodList(); });
            }
            memory.insertData("event", round);
        }
    });
    broker.reset(); // the last thread to end destroys it
    joinAll(threads);
}

} // namespace
} // namespace KR
