// A broker with a transport, here without any other process.

#include "krplatform/krtransport.hpp"

#include "krplatform/krmemoryproxy.hpp"
#include "krplatform/krproxy.hpp"

#include "eventmodules.hpp"
#include "patience.hpp"
#include "testmodule.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace KR {
namespace {

using test::Event;
using test::EventListener;
using test::eventually;
using test::kPatience;
using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

/// State shared between the test and the transport. Thread-safe.
struct Wire {
    mutable std::mutex mutex;
    KRTransportHost* host = nullptr;    // constant once the broker exists
    std::string refused;                // guarded by mutex: a name that another process holds
    std::function<void()> onMemoryOpen; // runs once, as soon as others can reach the memory module
    /// Guarded by mutex: what was last announced to the others.
    std::map<std::string, KRModuleState> announced;

    std::map<std::string, KRModuleState> getAnnounced() const {
        const std::lock_guard lock(mutex);
        return announced;
    }
};

class FakeTransport : public KRTransport {
public:
    explicit FakeTransport(std::shared_ptr<Wire> wire) : wire_(std::move(wire)) {}

    void start() override {}
    void announceModules() noexcept override {
        std::function<void()> onMemoryOpen;
        {
            const std::lock_guard lock(wire_->mutex);
            wire_->announced.clear();
            for (const KRLocalModule& module : wire_->host->listModules()) {
                wire_->announced[module.name] = module.state;
            }
            if (wire_->announced.contains("KRMemory") &&
                wire_->announced["KRMemory"] == KRModuleState::Open) {
                onMemoryOpen = std::exchange(wire_->onMemoryOpen, nullptr);
            }
        }
        if (onMemoryOpen) {
            onMemoryOpen();
        }
    }
    void claim(const std::string& name) override {
        const std::lock_guard lock(wire_->mutex);
        if (wire_->refused == name) {
            throw KRError("KRBroker", "registerModule", name + " is elsewhere");
        }
    }
    void stop() noexcept override {}

private:
    const std::shared_ptr<Wire> wire_;
};

/// A module of another process, which records its calls.
class FakeRemote : public KRRemoteModule {
public:
    explicit FakeRemote(const std::string& name) : KRRemoteModule(name, "in process 4711 on elsewhere") {}

    KRValue call(std::string_view method, std::span<const KRValue> arguments) override {
        std::vector<KRValue> call{std::string(method)};
        call.insert(call.end(), arguments.begin(), arguments.end());
        const std::lock_guard lock(mutex_);
        calls_.emplace_back(call);
        if (failures_ > 0) {
            --failures_;
            throw KRError(getName(), std::string(method), "not now");
        }
        if (!refusal_.empty()) {
            throw KRError(getName(), std::string(method), refusal_);
        }
        return {};
    }
    std::vector<KRValue> getCalls() const {
        const std::lock_guard lock(mutex_);
        return calls_;
    }
    /// All calls from now on fail.
    void failWith(const std::string& refusal) {
        const std::lock_guard lock(mutex_);
        refusal_ = refusal;
    }
    /// The next `times` calls fail.
    void fail(int times) {
        const std::lock_guard lock(mutex_);
        failures_ = times;
    }

private:
    mutable std::mutex mutex_;
    std::vector<KRValue> calls_; // guarded by mutex_
    int failures_ = 0;           // guarded by mutex_
    std::string refusal_;        // guarded by mutex_
};

/// A call from another process.
class FakeCall : public KRIncomingCall {
public:
    FakeCall(const std::string& to, const std::string& name, std::vector<KRValue> values)
        : KRIncomingCall("another process", to, name, std::move(values)) {}
    ~FakeCall() override = default;

    void succeed(const KRValue& result) noexcept override {
        result_ = result;
        answered_.set();
    }
    void fail(const KRError& error) noexcept override {
        error_ = error;
        answered_.set();
    }

    /// \throws KRError what the call failed with
    KRValue getResult() const {
        EXPECT_TRUE(answered_.wait());
        if (error_) {
            // A separate copy: ThreadSanitizer does not see the reference count of texts shared between copies of an exception.
            throw KRError(error_->getModule(), error_->getMethod(), error_->getDescription());
        }
        return result_;
    }

private:
    KRValue result_;               // written before answered_
    std::optional<KRError> error_; // written before answered_
    Event answered_;
};

class Transport : public testing::Test {
protected:
    boost::shared_ptr<KRBroker> createBroker(bool memory) {
        registerTransport("fake:", [this, memory](const std::string&, KRTransportHost& host) {
            wire->host = &host;
            return KRBrokerOptions{memory, std::make_unique<FakeTransport>(wire)};
        });
        return KRBroker::create("fake:");
    }
    std::shared_ptr<FakeRemote> addRemote(const std::string& name,
                                          KRModuleState state = KRModuleState::Open) const {
        auto remote = std::make_shared<FakeRemote>(name);
        wire->host->setRemoteModule(remote, state);
        return remote;
    }
    std::shared_ptr<FakeCall> serve(const std::string& module, const std::string& method,
                                    std::vector<KRValue> arguments) const {
        auto call = std::make_shared<FakeCall>(module, method, std::move(arguments));
        wire->host->serve(call);
        return call;
    }

    const std::shared_ptr<Wire> wire = std::make_shared<Wire>();
    boost::shared_ptr<KRBroker> broker = createBroker(true);
};

// ---- calls from other processes

/// Returns the identity of its caller.
class Asked : public TestModule {
public:
    Asked(boost::shared_ptr<KRBroker> broker, const std::string& name) : TestModule(std::move(broker), name) {
        add("getCaller", [this] { return xGetCaller(); });
    }
};

TEST_F(Transport, ARemoteCallRunsAndItsCallerIsKnown) {
    const auto module = createModule<Asked>(broker, "Module");
    EXPECT_EQ(serve("Module", "getCaller", {})->getResult(), "another process");
}

TEST_F(Transport, ARemoteCallFailsWithTheReason) {
    const auto module = makeModule(broker, "Module", [](TestModule& m) {
        m.add("throwSomething", []() -> int { throw std::runtime_error("it did not work"); });
        m.add("throwError", []() -> int { throw KRError("a module", "a method", "a description"); });
    });
    EXPECT_THAT([&] { serve("Nobody", "go", {})->getResult(); },
                ThrowsMessage<KRError>(HasSubstr("Nobody.go: there is no module named Nobody")));
    EXPECT_THAT([&] { serve("Module", "throwSomething", {})->getResult(); },
                ThrowsMessage<KRError>(HasSubstr("Module.throwSomething: it did not work")));
    EXPECT_THAT([&] { serve("Module", "throwError", {})->getResult(); },
                ThrowsMessage<KRError>(HasSubstr("a module.a method: a description")));
    module->exit();
    EXPECT_THAT([&] { serve("Module", "throwError", {})->getResult(); },
                ThrowsMessage<KRError>(HasSubstr("exiting")));
}

/// A call whose caller does not read the answer until release().
class UnreadCall : public KRIncomingCall {
public:
    UnreadCall(const std::string& to, const std::string& name)
        : KRIncomingCall("another process", to, name, {}) {}
    void succeed(const KRValue&) noexcept override {
        answering.set();
        EXPECT_TRUE(released.wait());
    }
    void fail(const KRError&) noexcept override { ADD_FAILURE(); }

    Event answering;
    Event released;
};

TEST_F(Transport, ACallerThatDoesNotReadItsAnswerDoesNotBlockTheModule) {
    auto module = makeModule(broker, "Module", [](TestModule& m) { m.add("run", [] { return 1; }); });
    const auto call = std::make_shared<UnreadCall>("Module", "run");
    const test::SetAtEnd end(call->released);
    wire->host->serve(call);
    ASSERT_TRUE(call->answering.wait());
    auto going = std::async(std::launch::async, [&] {
        module.reset(); // waits for calls
        return true;
    });
    EXPECT_TRUE(test::resultOf(going));
}

TEST_F(Transport, ArgumentsOfARemoteCallAreReleasedBeforeTheModuleIsDestroyed) {
    auto module =
        makeModule(broker, "Module", [](TestModule& m) { m.add("take", [](const KRBinary&) { return 1; }); });
    static constexpr unsigned char kByte = 0;
    std::atomic<bool> gone = false;
    const auto makeBytes = [&] {
        return boost::shared_ptr<const unsigned char[]>(&kByte, [&](const unsigned char*) { gone = true; });
    };
    const auto call = serve("Module", "take", {KRBinary(makeBytes(), 1)});
    EXPECT_EQ(call->getResult(), 1);
    module.reset(); // waits for calls
    EXPECT_TRUE(gone);
}

/// Records which callers have left.
class CallerObserver : public KRModule {
public:
    using KRModule::KRModule;
    ~CallerObserver() override { shutDown(); }
    Event heard;

protected:
    void xCallerGone(const std::string& caller) override {
        EXPECT_EQ(caller, "another process");
        heard.set();
    }
};

TEST_F(Transport, EveryModuleIsNotifiedOfACallerThatLeft) {
    const auto one = createModule<CallerObserver>(broker, "One");
    const auto two = createModule<CallerObserver>(broker, "Two");
    wire->host->noticeCallerGone("another process");
    EXPECT_TRUE(one->heard.wait());
    EXPECT_TRUE(two->heard.wait());
}

// ---- modules of other processes

TEST_F(Transport, ARemoteModuleExistsWhileItIsOpen) {
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory"));
    const auto remote = addRemote("Remote", KRModuleState::Claimed);
    const auto proxy = broker->getProxy("Remote");
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory"));
    EXPECT_THAT([&] { proxy->call("go"); }, ThrowsMessage<KRError>(HasSubstr("not reachable yet")));
    auto waiting =
        test::startAndLetSleep([&] { return broker->getSession().waitForService("Remote", 2 * kPatience); });
    wire->host->setRemoteModule(remote, KRModuleState::Open);
    EXPECT_TRUE(test::resultOf(waiting));
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory", "Remote"));
    proxy->call("go", 1);
    EXPECT_THAT(remote->getCalls(), ElementsAre(KRValue::array("go", 1)));
    wire->host->setRemoteModule(remote, KRModuleState::Closed);
    EXPECT_THAT([&] { proxy->call("go"); }, ThrowsMessage<KRError>(HasSubstr("exiting")));
    EXPECT_THAT(broker->getModuleList(), ElementsAre("KRMemory"));
    wire->host->removeRemoteModule(remote);
    EXPECT_THAT([&] { proxy->call("go"); },
                ThrowsMessage<KRError>(HasSubstr("there is no module named Remote")));
}

TEST_F(Transport, ANewerModuleReplacesTheOneOfTheSameName) {
    const auto before = addRemote("Remote");
    const auto after = addRemote("Remote");
    EXPECT_EQ(before->getState(), KRModuleState::Closed);
    wire->host->removeRemoteModule(before); // late
    broker->getProxy("Remote")->call("go");
    EXPECT_THAT(before->getCalls(), IsEmpty());
    EXPECT_EQ(after->getCalls().size(), 1U);
}

TEST_F(Transport, TheNameOfARemoteModuleIsRefused) {
    const auto remote = addRemote("Taken", KRModuleState::Claimed);
    EXPECT_THAT([&] { makeModule(broker, "Taken"); },
                ThrowsMessage<KRError>(
                    HasSubstr("there is a module named Taken already, in process 4711 on elsewhere")));
    wire->host->removeRemoteModule(remote);
    EXPECT_EQ(makeModule(broker, "Taken")->getName(), "Taken");
}

TEST_F(Transport, ANameIsFreeOnceAnotherProcessReleasesIt) {
    {
        const std::lock_guard lock(wire->mutex);
        wire->refused = "Wanted";
    }
    EXPECT_THAT([&] { makeModule(broker, "Wanted"); },
                ThrowsMessage<KRError>(HasSubstr("Wanted is elsewhere")));
    EXPECT_FALSE(wire->getAnnounced().contains("Wanted"));
    {
        const std::lock_guard lock(wire->mutex);
        wire->refused.clear();
    }
    EXPECT_EQ(makeModule(broker, "Wanted")->getName(), "Wanted");
}

TEST_F(Transport, OpeningExitingAndDestructionOfModulesAreAnnounced) {
    using States = std::map<std::string, KRModuleState>;
    auto module = makeModule(broker, "Module");
    EXPECT_EQ(wire->getAnnounced(),
              (States{{"KRMemory", KRModuleState::Open}, {"Module", KRModuleState::Open}}));
    module->exit();
    EXPECT_EQ(wire->getAnnounced(),
              (States{{"KRMemory", KRModuleState::Open}, {"Module", KRModuleState::Closed}}));
    module.reset();
    EXPECT_EQ(wire->getAnnounced(), (States{{"KRMemory", KRModuleState::Open}}));
}

TEST_F(Transport, TheMemoryDropsARemoteSubscriberThatExitsLeavesOrIsReplaced) {
    KRMemoryProxy memory(broker);
    const auto hasNone = [&] {
        return eventually([&] { return memory.getEventSubscribers("Event").getSize() == 0; });
    };
    const auto subscribeOne = [&] { // in its constructor, so that nobody queries its methods
        const auto client = addRemote("Client", KRModuleState::Claimed);
        memory.subscribeToEvent("Event", "Client", "onEvent");
        wire->host->setRemoteModule(client, KRModuleState::Open);
        EXPECT_EQ(memory.getEventSubscribers("Event").getSize(), 1U);
        return client;
    };
    const auto exiting = subscribeOne();
    wire->host->setRemoteModule(exiting, KRModuleState::Closed);
    EXPECT_TRUE(hasNone());
    wire->host->removeRemoteModule(exiting);

    const auto going = subscribeOne();
    wire->host->removeRemoteModule(going);
    EXPECT_TRUE(hasNone());

    const auto replaced = subscribeOne();
    addRemote("Client");
    EXPECT_TRUE(hasNone());
}

TEST_F(Transport, TheMemoryDropsARemoteSubscriberThatLeavesAtOnce) {
    broker.reset();
    wire->onMemoryOpen = [this] {
        const auto client = addRemote("Client", KRModuleState::Claimed);
        serve("KRMemory", "subscribeToEvent", {"Event", "Client", "onEvent"})->getResult();
        wire->host->removeRemoteModule(client);
    };
    broker = createBroker(true);
    EXPECT_TRUE(
        eventually([&] { return KRMemoryProxy(broker).getEventSubscribers("Event").getSize() == 0; }));
}

TEST_F(Transport, ARemoteCallerGetsAnErrorWhenTheModuleRunsOutOfMemory) {
    const auto module = makeModule(broker, "Module", [&](TestModule& m) {
        m.add("grow", [](const std::string&) -> int { throw std::bad_alloc(); });
    });
    EXPECT_THAT([&] { serve("Module", "grow", {"a lot"})->getResult(); },
                ThrowsMessage<KRError>(HasSubstr("Module.grow: out of memory")));
}

TEST_F(Transport, ARemoteSubscriberGetsEventsRaisedBeforeItWasKnownToBeReachable) {
    KRMemoryProxy memory(broker);
    const auto client = addRemote("Client", KRModuleState::Claimed);
    const auto listener = createModule<EventListener>(broker, "Listener");
    memory.subscribeToEvent("Event", "Client", "onEvent");
    memory.subscribeToEvent("Event", "Listener", "onEvent");
    memory.raiseEvent("Event", 1);
    memory.raiseEvent("Event", 2);
    EXPECT_EQ(listener->waitForEvents(2).size(), 2U);
    EXPECT_THAT(client->getCalls(), IsEmpty());
    wire->host->setRemoteModule(client, KRModuleState::Open);
    EXPECT_TRUE(eventually([&] { return client->getCalls().size() == 2; }));
    EXPECT_THAT(client->getCalls(),
                ElementsAre(KRValue::array("onEvent", "Event", 1), KRValue::array("onEvent", "Event", 2)));
}

// ---- a memory in another process

class RemoteMemory : public Transport {
protected:
    RemoteMemory() {
        broker.reset();
        broker = createBroker(false);
    }

    /// Whether the memory got exactly these calls, in any order.
    static bool wasCalled(const FakeRemote& memory, std::vector<KRValue> expected) {
        return eventually([&] {
            const auto calls = memory.getCalls();
            return calls.size() >= expected.size() &&
                   std::is_permutation(calls.begin(), calls.end(), expected.begin(), expected.end());
        });
    }
};

TEST_F(RemoteMemory, ANewMemoryGetsWhatTheLastOneHeld) {
    const auto before = addRemote("KRMemory");
    KRMemoryProxy memory(broker);
    const auto listener = createModule<EventListener>(broker, "Listener");
    auto leaving = createModule<EventListener>(broker, "Leaving");
    memory.declareEvent("Own", "Listener");
    memory.declareEvent("Nobodys");
    memory.declareEvent("Gone", "Leaving");
    memory.subscribeToEvent("Own", "Listener", "onEvent");
    memory.subscribeToEvent("Own", "Leaving", "onEvent");
    memory.subscribeToEvent("Dropped", "Listener", "onEvent");
    memory.unsubscribeFromEvent("Dropped", "Listener");
    leaving.reset();
    wire->host->removeRemoteModule(before);
    const auto after = addRemote("KRMemory");
    EXPECT_TRUE(wasCalled(*after, {KRValue::array("declareEvent", "Own", "Listener"),
                                   KRValue::array("declareEvent", "Nobodys"),
                                   KRValue::array("subscribeToEvent", "Own", "Listener", "onEvent")}));

    // And the next one again.
    wire->host->removeRemoteModule(after);
    const auto third = addRemote("KRMemory");
    EXPECT_TRUE(wasCalled(*third, {KRValue::array("declareEvent", "Own", "Listener"),
                                   KRValue::array("declareEvent", "Nobodys"),
                                   KRValue::array("subscribeToEvent", "Own", "Listener", "onEvent")}));
    EXPECT_EQ(after->getCalls().size(), 3U);
}

TEST_F(RemoteMemory, AMemoryThatDoesNotKnowTheSubscriberYetIsRetried) {
    const auto before = addRemote("KRMemory");
    KRMemoryProxy memory(broker);
    const auto listener = createModule<EventListener>(broker, "Listener");
    memory.subscribeToEvent("Event", "Listener", "onEvent");
    wire->host->removeRemoteModule(before);
    const auto after = std::make_shared<FakeRemote>("KRMemory");
    after->fail(2);
    wire->host->setRemoteModule(after, KRModuleState::Open);
    const KRValue call = KRValue::array("subscribeToEvent", "Event", "Listener", "onEvent");
    EXPECT_TRUE(wasCalled(*after, {call, call, call}));
}

TEST_F(RemoteMemory, AWriteBeforeTheFirstMemoryReachesIt) {
    const auto before = addRemote("KRMemory");
    KRMemoryProxy memory(broker);
    wire->host->removeRemoteModule(before);
    memory.insertData("Key", 1);
    const auto after = addRemote("KRMemory");
    EXPECT_TRUE(wasCalled(*after, {KRValue::array("insertData", "Key", 1)}));
}

TEST_F(RemoteMemory, AnExitingOneThatRefusesAWriteCountsAsAway) {
    const auto before = addRemote("KRMemory");
    KRMemoryProxy memory(broker);
    before->failWith("the module is exiting");
    memory.insertData("Key", 1);
    memory.insertData("Key", 2);
    wire->host->removeRemoteModule(before);
    const auto after = addRemote("KRMemory");
    EXPECT_TRUE(wasCalled(*after, {KRValue::array("insertData", "Key", 2)}));
}

TEST_F(RemoteMemory, OneThatRefusesAWriteForAnotherReasonDoesNot) {
    const auto remote = addRemote("KRMemory");
    KRMemoryProxy memory(broker);
    memory.insertData("Key", 1);
    remote->failWith("the value is too large");
    EXPECT_THAT([&] { memory.insertData("Key", 2); }, ThrowsMessage<KRError>(HasSubstr("too large")));
    EXPECT_THAT([&] { memory.raiseEvent("Event", 2); }, ThrowsMessage<KRError>(HasSubstr("too large")));
}

} // namespace
} // namespace KR
