// Behaviour of the platform when an allocation fails: each allocation in turn.

#include "krplatform/krmemoryproxy.hpp"
#include "krplatform/krproxy.hpp"
#include "krplatform/krtransport.hpp"

#include "eventmodules.hpp"
#include "patience.hpp"
#include "testmodule.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

namespace {

// Allocations that still succeed before one fails; negative: none fails. Counted on this thread, and on all threads.
thread_local int allocationsOfThread = -1;
std::atomic<int> allocationsOfAll = -1;

void* allocate(std::size_t size) {
    if (allocationsOfThread >= 0 && allocationsOfThread-- == 0) {
        throw std::bad_alloc();
    }
    if (allocationsOfAll.load(std::memory_order_relaxed) >= 0 && allocationsOfAll.fetch_sub(1) == 0) {
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace KR {
namespace {

using test::Event;
using test::EventListener;
using test::eventually;
using test::makeModule;
using test::TestModule;

constexpr int kMostAllocations = 60; // more than any operation below makes

/// Makes the allocation of this number on this thread fail, while this object exists.
class FailingAllocation {
public:
    explicit FailingAllocation(int number) { allocationsOfThread = number; }
    ~FailingAllocation() { allocationsOfThread = -1; }
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
};

/// Runs the function with a failing allocation. \return whether it threw
template <class Function>
bool failsOn(int number, Function function) {
    const FailingAllocation failing(number);
    try {
        function();
        return false;
    } catch (const KRError&) {
        return true;
    } catch (const std::bad_alloc&) {
        return true;
    }
}

class OutOfMemory : public testing::Test {
protected:
    static KRModuleHandle<TestModule> makeCounter(const boost::shared_ptr<KRBroker>& broker,
                                                  std::atomic<int>& calls) {
        return makeModule(broker, "Module", [&calls](TestModule& m) {
            m.add("count", [&calls](const std::string&) { return ++calls; });
        });
    }
};

TEST_F(OutOfMemory, AFailedPostDoesNotBlockTheModulesDestruction) {
    const auto broker = KRBroker::create();
    std::atomic<int> calls = 0;
    auto module = makeCounter(broker, calls);
    const auto proxy = broker->getProxy("Module");
    int accepted = 0;
    for (int number = 0; number < kMostAllocations; ++number) {
        accepted +=
            failsOn(number, [&] { proxy->post("count", "a text that is longer than a short string"); }) ? 0
                                                                                                        : 1;
    }
    EXPECT_LT(accepted, kMostAllocations);
    EXPECT_GT(accepted, 0);
    module.reset(); // waits for calls, and only for those that were accepted
    EXPECT_EQ(calls, accepted);
}

TEST_F(OutOfMemory, AnEventThatCannotBeRaisedDoesNotStopLaterOnes) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto client = createModule<EventListener>(broker, "client");
    memory.subscribeToEvent("event", "client", "onEvent");
    int accepted = 0;
    int failed = 0;
    for (int number = 0; number < kMostAllocations; ++number) {
        const bool fails = failsOn(number, [&] {
            memory.raiseEvent("event", KRValue::array(number, "a text that is longer than a short string"));
        });
        (fails ? failed : accepted) += 1;
    }
    EXPECT_GT(failed, 0);
    EXPECT_GT(accepted, 0);
    memory.raiseEvent("event", "last");
    EXPECT_TRUE(eventually([&] {
        const auto events = client->waitForEvents(static_cast<std::size_t>(accepted) + 1);
        return events.back().second == "last";
    }));
}

TEST_F(OutOfMemory, AFailedSubscriptionCanBeRetried) {
    const auto broker = KRBroker::create();
    KRMemoryProxy memory(broker);
    const auto extractor = createModule<test::FakeExtractor>(broker, "extractor");
    const auto client = createModule<EventListener>(broker, "client");
    memory.declareEvent("event", "extractor");
    for (int number = 0; number < 4 * kMostAllocations; ++number) {
        failsOn(number, [&] { memory.subscribeToEvent("event", "client", "onEvent"); });
    }
    memory.subscribeToEvent("event", "client", "onEvent");
    memory.unsubscribeFromEvent("event", "client");
    memory.subscribeToEvent("event", "client", "onEvent");
    EXPECT_TRUE(extractor->waitForSubscribers({"client"}));
    memory.raiseEvent("event", 1);
    EXPECT_EQ(client->waitForEvents(1).size(), 1U);
}

// ---- calls from other processes

class IdleTransport : public KRTransport {
public:
    void start() override {}
    void announceModules() noexcept override {}
    void claim(const std::string&) override {}
    void stop() noexcept override {}
};

/// A call from another process, answered, refused or destroyed unanswered.
class CountedCall : public KRIncomingCall {
public:
    explicit CountedCall(Event& over)
        : KRIncomingCall("another process", "Module", "count", {"a text that is longer than a short string"}),
          over_(over) {}
    ~CountedCall() override { over_.set(); }
    void succeed(const KRValue&) noexcept override {}
    void fail(const KRError&) noexcept override {}

private:
    Event& over_;
};

class OutOfMemoryForOthers : public OutOfMemory {
protected:
    OutOfMemoryForOthers() {
        registerTransport("idle:", [this](const std::string&, KRTransportHost& transportHost) {
            host = &transportHost;
            return KRBrokerOptions{true, std::make_unique<IdleTransport>()};
        });
        broker = KRBroker::create("idle:");
    }

    KRTransportHost* host = nullptr;
    boost::shared_ptr<KRBroker> broker;
};

TEST_F(OutOfMemoryForOthers, ACallThatCannotBeServedDoesNotBlockTheModulesDestruction) {
    std::atomic<int> calls = 0;
    auto module = makeCounter(broker, calls);
    for (int number = 0; number < kMostAllocations; ++number) {
        Event over;
        auto call = std::make_shared<CountedCall>(over);
        {
            const FailingAllocation failing(number);
            host->serve(std::move(call));
        }
        EXPECT_TRUE(over.wait());
    }
    EXPECT_GT(calls, 0);
    EXPECT_LT(calls, kMostAllocations);
    module.reset();
}

TEST_F(OutOfMemoryForOthers, ACallThreadThatRunsOutOfMemoryContinues) {
    std::atomic<int> calls = 0;
    auto module = makeCounter(broker, calls);
    const auto failing = makeModule(broker, "Other", [](TestModule& m) {
        m.add("fail", [](const std::string& text) { throw KRError("Other", "fail", text + text); });
    });
    const auto proxy = broker->getProxy("Other");
    for (int number = 0; number < 2 * kMostAllocations; ++number) {
        Event over;
        auto call = std::make_shared<CountedCall>(over);
        allocationsOfAll = number;
        host->serve(std::move(call));
        try {
            proxy->post("fail", "a text that is longer than a short string");
        } catch (const std::exception&) { // no memory for it
        }
        EXPECT_TRUE(over.wait());
        allocationsOfAll = -1;
    }
    EXPECT_GT(calls, 0);
    module.reset();
}

} // namespace
} // namespace KR
