// kr serve --subscribe and kr run --subscribe

#include "krsystem.hpp"

#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KrSubscribe : public KrSystem {
protected:
    /// The table of subscribers, null while there is no such module.
    json subscribersOf(const std::string& module) const {
        const Outcome outcome = krOnDomain({"call", module, "getSubscribersInfo"});
        return outcome.exitCode == 0 ? json::parse(outcome.out) : json();
    }
    bool waitForSubscribers(const std::string& module, std::size_t count) const {
        return eventually([&] {
            const json subscribers = subscribersOf(module);
            return subscribers.is_array() && subscribers.size() == count;
        });
    }
};

TEST_F(KrSubscribe, ServeSubscribesToAModuleThatItHosts) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY, "--subscribe", "KRMotion:200:0.5"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_TRUE(waitForSubscribers("KRMotion", 1));
    const json subscriber = subscribersOf("KRMotion")[0];
    EXPECT_THAT(subscriber[0].get<std::string>(), testing::StartsWith("kr-"));
    EXPECT_EQ(subscriber[1], 200);
    EXPECT_EQ(subscriber[2], 0.5);
    const Outcome ended = server.stop();
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("did not shut down")));
}

TEST_F(KrSubscribe, ASubscriptionFollowsTheModuleThroughARestart) {
    RunningProgram server = serve({"--subscribe", "KRMotion"}); // not started yet
    ASSERT_TRUE(server.isUp()) << server.readErr();
    for (int i = 0; i < 2; ++i) {
        RunningProgram motion(onDomain({"run", KR_MOTION_LIBRARY}), "module KRMotion runs");
        ASSERT_TRUE(motion.isUp()) << motion.readErr();
        EXPECT_TRUE(waitForSubscribers("KRMotion", 1)) << i;
        EXPECT_EQ(motion.stop().exitCode, 0);
    }
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrSubscribe, ASubscriptionEndsWithItsProgram) {
    RunningProgram server = serve({"--run", "Left=" KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram host(
        onDomain({"run", KR_MOTION_LIBRARY, "--subscribe", "Left:100", "--subscribe", "KRMotion:100:1"}),
        "module KRMotion runs");
    ASSERT_TRUE(host.isUp()) << host.readErr();
    EXPECT_TRUE(waitForSubscribers("Left", 1));
    EXPECT_TRUE(waitForSubscribers("KRMotion", 1));
    const Outcome ended = host.stop(SIGINT);
    EXPECT_EQ(ended.exitCode, 0) << ended.err;
    EXPECT_EQ(subscribersOf("Left"), json::array());
    EXPECT_EQ(krOnDomain({"call", "Left", "isProcessing"}).out, "0\n");
}

TEST_F(KrSubscribe, ARefusalIsLoggedAndTheProgramContinues) {
    RunningProgram server = serve({"--subscribe", "KRVideoDevice:100"}); // not an extractor
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_TRUE(server.waitFor("KRVideoDevice refuses the subscription of kr-"));
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrSubscribe, AMalformedSubscriptionIsWrongUsage) {
    for (const char* text : {"", ":100", "KRMotion:", "KRMotion:0", "KRMotion:fast",
                             "KRMotion:100:", "KRMotion:100:-1", "KRMotion:100:1:2"}) {
        const Outcome outcome = krOnDomain({"serve", "--subscribe", text});
        EXPECT_EQ(outcome.exitCode, 2) << text;
        EXPECT_THAT(outcome.err, AllOf(HasSubstr("--subscribe"), HasSubstr("MODULE[:PERIOD[:PRECISION]]")))
            << text;
    }
}

} // namespace
} // namespace KR::test
