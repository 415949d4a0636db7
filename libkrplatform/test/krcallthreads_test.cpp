#include "krplatform/krbroker.hpp"
#include "krplatform/krproxy.hpp"
#include "krplatform/krthread.hpp"

#include "patience.hpp"
#include "recordedlog.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace KR {
namespace {

using test::Event;
using test::eventually;
using test::makeModule;
using test::TestModule;
using testing::HasSubstr;

/// Counts arriving threads; they stay until the expected number has arrived.
class Gathering {
public:
    explicit Gathering(int expected) : expected_(expected) {}
    void arriveAndStay() {
        if (++arrived_ == expected_) {
            complete.set();
        }
        EXPECT_TRUE(complete.wait());
    }
    Event complete;

private:
    const int expected_;
    std::atomic<int> arrived_ = 0;
};

bool isThreadAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    const auto afterName = line.rfind(')');
    return afterName != std::string::npos && line.substr(afterName, 3) == ") S";
}

TEST(KRCallThreads, AHundredBlockedCallsRunAtTheSameTime) {
    const auto broker = KRBroker::create("local:?memory=none");
    Gathering gathering(100);
    auto module =
        makeModule(broker, "m", [&](TestModule& m) { m.add("meet", [&] { gathering.arriveAndStay(); }); });
    const auto proxy = broker->getProxy("m");
    for (int i = 0; i < 100; ++i) {
        proxy->post("meet");
    }
    EXPECT_TRUE(gathering.complete.wait());
    EXPECT_GE(broker->getCallThreadCount(), 100u);
}

TEST(KRCallThreads, DoNotExistBeforeACallIsPosted) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "m", [](TestModule& m) { m.add("go", [] {}); });
    broker->getProxy("m")->call("go");
    EXPECT_EQ(broker->getCallThreadCount(), 0u);
}

TEST(KRCallThreads, EndWhenIdleAndStartAgain) {
    const auto broker = KRBroker::create();
    for (int round = 0; round < 2; ++round) {
        Gathering gathering(10);
        const auto module = makeModule(
            broker, "m", [&](TestModule& m) { m.add("meet", [&] { gathering.arriveAndStay(); }); });
        for (int i = 0; i < 10; ++i) {
            broker->getProxy("m")->post("meet");
        }
        EXPECT_TRUE(gathering.complete.wait());
        EXPECT_TRUE(eventually([&] { return broker->getCallThreadCount() == 0; }));
    }
}

TEST(KRCallThreads, AnIdleThreadIsReused) {
    const auto broker = KRBroker::create();
    std::atomic<int> ran = 0;
    const auto module = makeModule(broker, "m", [&](TestModule& m) { m.add("go", [&] { ++ran; }); });
    const auto proxy = broker->getProxy("m");
    std::size_t most = 0;
    for (int i = 0; i < 1000; ++i) {
        proxy->post("go");
        EXPECT_TRUE(eventually([&] { return ran > i; }));
        most = std::max(most, broker->getCallThreadCount());
    }
    EXPECT_LT(most, 500u) << "one would do; a thread that has just counted is not idle yet";
}

TEST(KRCallThreads, TheMostRecentlyBusyThreadGetsTheNextCall) {
    const auto broker = KRBroker::create("local:?memory=none");
    constexpr int kThreads = 4;
    std::vector<Event> release(kThreads);
    std::vector<std::atomic<pid_t>> threads(kThreads);
    std::vector<std::atomic<bool>> done(kThreads);
    std::atomic<pid_t> last = 0;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("hold", [&](int number) {
            threads[number] = gettid();
            EXPECT_TRUE(release[number].wait());
            done[number] = true;
        });
        m.add("go", [&] { last = gettid(); });
    });
    const auto proxy = broker->getProxy("m");
    for (int i = 0; i < kThreads; ++i) {
        proxy->post("hold", i);
        ASSERT_TRUE(eventually([&] { return threads[i] != 0; }));
    }
    // They become idle in an order other than that of their start.
    for (const int i : {2, 0, 3, 1}) {
        release[i].set();
        ASSERT_TRUE(eventually([&] { return done[i] && isThreadAsleep(threads[i]); }));
    }
    proxy->post("go");
    ASSERT_TRUE(eventually([&] { return last != 0; }));
    EXPECT_EQ(last, threads[1]);
}

TEST(KRCallThreads, ABlockedCallDoesNotDelayOthers) {
    const auto broker = KRBroker::create();
    Event release;
    Event entered;
    Event second;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("block", [&] {
            entered.set();
            EXPECT_TRUE(release.wait());
        });
        m.add("go", [&] { second.set(); });
    });
    const test::SetAtEnd end(release);
    broker->getProxy("m")->post("block");
    ASSERT_TRUE(entered.wait());
    broker->getProxy("m")->post("go");
    EXPECT_TRUE(second.wait());
}

TEST(KRCallThreads, APostedCallMayPostAnotherAndWaitForIt) {
    const auto broker = KRBroker::create();
    Event done;
    const auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("nest", [&](int depth) {
            if (depth == 0) {
                done.set();
                return;
            }
            broker->getProxy("m")->post("nest", depth - 1);
            EXPECT_TRUE(done.wait());
        });
    });
    broker->getProxy("m")->post("nest", 20);
    EXPECT_TRUE(done.wait());
}

TEST(KRCallThreads, AFailingPostedCallIsLogged) {
    const auto broker = KRBroker::create();
    const test::RecordedLog recorded;
    const auto module = makeModule(broker, "m", [](TestModule& m) {
        m.add("fail", [](bool standard) {
            if (standard) {
                throw std::runtime_error("out of film");
            }
            throw 7;
        });
    });
    const auto proxy = broker->getProxy("m");
    proxy->post("fail", true);
    const auto standard = recorded.waitFor(KRLogLevel::Error, "out of film");
    ASSERT_TRUE(standard);
    EXPECT_THAT(standard->message, HasSubstr("m.fail"));
    proxy->post("fail", false);
    EXPECT_TRUE(
        recorded.waitFor(KRLogLevel::Error, "m.fail failed: an exception that is not a std::exception"));
    proxy->post("fly");
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Error, "m.fly: no such method"));
    module->xPost("its own work", [] { throw std::runtime_error("own failure"); });
    EXPECT_TRUE(recorded.waitFor(KRLogLevel::Error, "m.its own work failed: own failure"));
}

TEST(KRCallThreads, APostedCallStartsUnderTheThreadsOwnName) {
    const auto broker = KRBroker::create();
    std::mutex mutex;
    std::set<std::string> names;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("go", [&] {
            const std::lock_guard lock(mutex);
            names.insert(getThreadName());
            setThreadName("a name that the call leaves behind");
        });
    });
    for (int i = 0; i < 50; ++i) {
        broker->getProxy("m")->post("go");
    }
    module.reset();
    EXPECT_THAT(names, testing::ElementsAre("KRCall"));
}

TEST(KRCallThreads, AModuleMayPostToItselfFromItsConstructor) {
    const auto broker = KRBroker::create();
    Event ran;
    Event mayRun;
    auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.xPost("start", [&] {
            EXPECT_TRUE(mayRun.wait());
            ran.set();
        });
    });
    mayRun.set();
    module.reset();
    EXPECT_TRUE(ran.hasHappened()) << "a running call of the module, so the module waited for it";
}

TEST(KRCallThreads, ABrokerEndsItsIdleCallThreads) {
    for (int round = 0; round < 50; ++round) {
        auto broker = KRBroker::create();
        Gathering gathering(4);
        auto module = makeModule(broker, "m",
                                 [&](TestModule& m) { m.add("meet", [&] { gathering.arriveAndStay(); }); });
        for (int i = 0; i < 4; ++i) {
            broker->getProxy("m")->post("meet");
        }
        EXPECT_TRUE(gathering.complete.wait());
        module.reset();
        broker.reset(); // some threads are idle, some soon will be
    }
}

TEST(KRCallThreads, ManyThreadsPostAtTheSameTime) {
    const auto broker = KRBroker::create();
    std::atomic<int> ran = 0;
    auto module = makeModule(broker, "m", [&](TestModule& m) { m.add("go", [&] { ++ran; }); });
    std::vector<std::thread> posters;
    for (int i = 0; i < 4; ++i) {
        posters.emplace_back([&] {
            for (int j = 0; j < 250; ++j) {
                broker->getProxy("m")->post("go");
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    module.reset();
    EXPECT_EQ(ran, 1000);
}

} // namespace
} // namespace KR
