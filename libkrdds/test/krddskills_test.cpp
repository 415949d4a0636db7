// Processes that are killed and stopped at random moments, again and again, while images flow between the brokers of all.

#include "otherprocess.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <processuse.hpp>
#include <randomkills.hpp>
#include <testmodule.hpp>

#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

namespace KR::test {

namespace {

using testing::AnyOf;
using testing::HasSubstr;

constexpr int kFlowing = 614400; // bytes of an image
// The lease is long, so that nothing is noticed by way of DDS. Slots that are lost would soon leave no room for images.
const std::string kFlowOptions = "local=on&lease=300&local-memory=32M";

/// Modules "First" and "Second" of two processes that exchange images with each other throughout, and "Here" of this one.
class KRDDSKills : public testing::Test {
protected:
    static constexpr int kAtOnce = 3;

    void SetUp() override {
        for (const char* name : {"First", "Second"}) {
            ASSERT_TRUE(broker->getSession().waitForService(name, kPatience));
            ASSERT_TRUE(waitThere(name, "Here"));
        }
        ASSERT_TRUE(waitThere("First", "Second"));
        ASSERT_TRUE(waitThere("Second", "First"));
        undisturbed.emplace_back([this] { exchange("First", "Second", firstCount); });
        undisturbed.emplace_back([this] { exchange("Second", "First", secondCount); });
    }
    void TearDown() override {
        ending = true;
        for (std::thread& thread : undisturbed) {
            thread.join();
        }
    }
    bool waitThere(const std::string& there, const std::string& name) {
        return eventually([&] { return broker->getProxy(there)->call<bool>("isReachable", name); });
    }
    /// Neither may ever notice the others.
    void exchange(const std::string& to, const std::string& from, std::atomic<int>& count) {
        const auto proxy = broker->getProxy(to);
        while (!ending) {
            EXPECT_EQ(proxy->call<int>("keepImages", from, kAtOnce, kFlowing), kAtOnce); // in shared memory
            proxy->call("dropImages");
            ++count;
        }
    }
    bool goOn() {
        const int before = firstCount;
        const int secondBefore = secondCount;
        return eventually([&] { return firstCount > before + 1 && secondCount > secondBefore + 1; });
    }
    /// Calls the function until the process that it calls has been killed.
    template <class Function>
    std::thread callUntilKilled(Function function) {
        return std::thread([function] {
            try {
                for (;;) {
                    function();
                }
            } catch (const KRError& error) {
                EXPECT_THAT(error.getDescription(), AnyOf(HasSubstr("is gone or cannot be reached"),
                                                          HasSubstr("there is no module")));
            }
        });
    }
    /// Images flow both ways between the module and all others.
    std::vector<std::thread> exchangeWith(const std::string& name) {
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i) {
            threads.push_back(callUntilKilled([this, name] {
                const auto image = broker->getProxy(name)->call<KRBinary>("allocateImage", kFlowing);
                EXPECT_TRUE(std::all_of(image.data(), image.data() + image.size(),
                                        [](unsigned char c) { return c == 'i'; }));
            }));
        }
        for (const char* from : {"Here", "First"}) {
            threads.push_back(callUntilKilled([this, name, from] {
                broker->getProxy(name)->call<int>("keepImages", from, kAtOnce, kFlowing);
                broker->getProxy(name)->call("dropImages");
            }));
        }
        return threads;
    }
    std::vector<ProcessUse> getUse() const {
        return {ProcessUse::of(getpid()), ProcessUse::of(first.getPid()), ProcessUse::of(second.getPid())};
    }

    TestDomain domain;
    boost::shared_ptr<KRBroker> broker = domain.createBroker(kFlowOptions);
    KRModuleHandle<TestModule> here = makeModule(broker, "Here", [](TestModule& module) {
        module.add("allocateImage", [](int size) {
            const auto bytes = KRBinary::allocate(static_cast<std::size_t>(size));
            std::fill_n(bytes.get(), size, static_cast<unsigned char>('i'));
            return KRBinary(bytes, static_cast<std::size_t>(size));
        });
    });
    OtherProcess first{domain.getUrl(kFlowOptions), {"module", "First"}};
    OtherProcess second{domain.getUrl(kFlowOptions), {"module", "Second"}};
    std::atomic<bool> ending = false;
    std::atomic<int> firstCount = 0;
    std::atomic<int> secondCount = 0;
    std::vector<std::thread> undisturbed;
};

TEST_F(KRDDSKills, AndStopsAtRandomMomentsDisturbNobodyElseAndLoseNothing) {
    constexpr int kSettled = 3; // rounds until all have as many threads as ever
    RandomKills kills(6);
    const std::string seed = "seed " + std::to_string(kills.getSeed());
    RecordProperty("seed", seed);
    std::vector<ProcessUse> before;
    for (int round = 0; round < kills.getRounds() && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + " of " + seed);
        const std::string name = "Mortal" + std::to_string(round);
        OtherProcess mortal(domain.getUrl(kFlowOptions), {"module", name});
        ASSERT_TRUE(broker->getSession().waitForService(name, kPatience));
        std::vector<std::thread> calling = exchangeWith(name);
        kills.waitForSomeMoment();
        if (kills.decide()) {
            mortal.freeze();
            EXPECT_TRUE(goOn());
            if (kills.decide()) {
                mortal.thaw();
                EXPECT_EQ(broker->getProxy(name)->call<int>("getPid"), mortal.getPid());
                kills.waitForSomeMoment();
            }
        }
        mortal.kill();
        for (std::thread& thread : calling) {
            thread.join();
        }
        EXPECT_TRUE(goOn());
        if (round == kSettled) {
            EXPECT_TRUE(eventually([&] { return broker->getModuleList().size() == 3; }));
            before = getUse();
        }
    }
    SCOPED_TRACE(seed);
    ASSERT_EQ(before.size(), 3U);
    std::vector<ProcessUse> after;
    EXPECT_TRUE(eventually([&] {
        after = getUse();
        return std::equal(after.begin(), after.end(), before.begin(),
                          [](const ProcessUse& now, const ProcessUse& then) {
                              return now.descriptors <= then.descriptors + 2; // lanes come and go
                          });
    }));
    for (std::size_t i = 0; i < after.size(); ++i) {
        const std::string process = "process" + std::to_string(i);
        SCOPED_TRACE(process);
        RecordProperty(process, before[i].toText() + " -> " + after[i].toText());
        EXPECT_LE(after[i].shared_kB, 3 * 32 * 1024U);
        if (kIsHeapExact) {
            EXPECT_LE(after[i].own_kB, before[i].own_kB + 8192); // the engine's receive buffers come and go
        }
    }
}

} // namespace

} // namespace KR::test
