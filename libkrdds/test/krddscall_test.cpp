#include "otherprocess.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <recordedlog.hpp>
#include <testmodule.hpp>

#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

namespace KR::test {

namespace {

using testing::HasSubstr;

/// A broker here, a module "Server" in another process.
class KRDDSCall : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(server.getAnswer(), "ready");
        ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
    }

    TestDomain domain;
    OtherProcess server{domain.getUrl(), {"module", "Server"}};
    boost::shared_ptr<KRBroker> broker = domain.createBroker();
    boost::shared_ptr<KRProxy> proxy = broker->getProxy("Server");
};

KRError errorOf(const std::function<void()>& function) {
    try {
        function();
    } catch (const KRError& error) {
        return error;
    }
    return {"", "", "no error"};
}

TEST_F(KRDDSCall, RunsInTheOtherProcess) {
    EXPECT_EQ(proxy->call<int>("getPid"), server.getPid());
}

TEST_F(KRDDSCall, EveryKindOfValueComesBackAsItWent) {
    std::vector<unsigned char> bytes(100000);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    const KRValue value = KRValue::array(
        KRValue(), 0, 1, -1, 127, 128, -32, -33, 65536, std::numeric_limits<int>::max(),
        std::numeric_limits<int>::min(), 0.25F, "", "text", std::string("a\0b", 3),
        KRBinary::copyOf(nullptr, 0), KRBinary::copyOf(bytes.data(), 3), KRBinary::copyOf(bytes.data(), 4095),
        KRBinary::copyOf(bytes.data(), 4096), KRBinary::copyOf(bytes.data(), bytes.size()),
        KRValue::array(KRValue::array(), KRValue::array(1, KRBinary::copyOf(bytes.data(), 70001))));
    EXPECT_EQ(proxy->call<KRValue>("echo", value), value);
}

TEST_F(KRDDSCall, AnImageLargerThanAnyCacheComesBackWhole) {
    std::vector<unsigned char> bytes(5 << 20);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + i / 4096);
    }
    const KRBinary sent = KRBinary::copyOf(bytes.data(), bytes.size());
    EXPECT_EQ(proxy->call<KRBinary>("echo", sent), sent);
}

TEST_F(KRDDSCall, AnErrorComesWithItsThreeTextsIntact) {
    const KRError error =
        errorOf([&] { proxy->call("fail", "a module", "its method", "line 1\nline 2 \"\xc3\xa4\""); });
    EXPECT_EQ(error.getModule(), "a module");
    EXPECT_EQ(error.getMethod(), "its method");
    EXPECT_EQ(error.getDescription(), "line 1\nline 2 \"\xc3\xa4\"");
}

TEST_F(KRDDSCall, WhatIsNoKRErrorComesAsOneThatNamesTheMethod) {
    const KRError error = errorOf([&] { proxy->call("throwSomething"); });
    EXPECT_EQ(error.getModule(), "Server");
    EXPECT_EQ(error.getMethod(), "throwSomething");
    EXPECT_EQ(error.getDescription(), "it did not work");
}

TEST_F(KRDDSCall, AnUnknownMethodIsAnsweredWithTheOnesThereAre) {
    EXPECT_THAT(errorOf([&] { proxy->call("noSuchMethod"); }).getDescription(),
                HasSubstr("no such method; the nearest names are "));
}

TEST_F(KRDDSCall, AnUnknownModuleIsAnError) {
    EXPECT_EQ(errorOf([&] { broker->getProxy("Nobody")->call("echo", 1); }).getDescription(),
              "there is no module named Nobody");
}

TEST_F(KRDDSCall, MethodsAreListedAsPublished) {
    const auto methods = proxy->getMethodList();
    ASSERT_FALSE(methods.empty());
    EXPECT_EQ(methods.front().getSignature(), "echo(value): value");
}

TEST_F(KRDDSCall, AValueThatIsTooDeepToTravelIsRefused) {
    KRValue deep = 1;
    for (int i = 0; i < 70; ++i) {
        deep = KRValue::array(deep);
    }
    EXPECT_THAT(errorOf([&] { proxy->call("echo", deep); }).getDescription(), HasSubstr("64 deep"));
}

TEST_F(KRDDSCall, BlockedCallsStarveNoOther) {
    constexpr int kBlocked = 20;
    std::vector<std::future<bool>> blocked;
    for (int i = 0; i < kBlocked; ++i) {
        blocked.push_back(std::async(std::launch::async, [&] { return proxy->call<bool>("block"); }));
    }
    EXPECT_TRUE(eventually([&] { return proxy->call<int>("countBlocked") == kBlocked; }));
    proxy->call("release");
    for (auto& each : blocked) {
        EXPECT_TRUE(resultOf(each));
    }
}

TEST_F(KRDDSCall, CallsOfOneThreadArriveInOrder) {
    std::vector<int> numbers(300);
    std::iota(numbers.begin(), numbers.end(), 0);
    for (const int number : numbers) {
        proxy->call("note", number);
    }
    EXPECT_EQ(proxy->call<std::vector<int>>("getNotes"), numbers);
}

TEST_F(KRDDSCall, APostedCallRunsAndItsFailureIsLogged) {
    const RecordedLog log;
    proxy->post("note", 5);
    proxy->post("fail", "a module", "its method", "posted in vain");
    EXPECT_TRUE(log.waitFor(KRLogLevel::Error, "posted in vain"));
    EXPECT_TRUE(eventually([&] { return proxy->call<std::vector<int>>("getNotes") == std::vector{5}; }));
    EXPECT_THROW(broker->getProxy("Nobody")->post("note", 5), KRError);
}

TEST_F(KRDDSCall, CyclicCallsBetweenTwoProcessesEnd) {
    const auto here = makeModule(broker, "Here", [&](TestModule& module) {
        module.add("countDown", [&](const std::string& other, int count) {
            return count == 0 ? 0 : 1 + broker->getProxy(other)->call<int>("countDown", "Here", count - 1);
        });
    });
    // The other process hears of it a moment later.
    ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Here"); }));
    EXPECT_EQ(proxy->call<int>("countDown", "Here", 20), 20);
}

/// Tells who calls it, and who calls another such module that it calls in turn.
class Asked : public TestModule {
public:
    Asked(boost::shared_ptr<KRBroker> broker, const std::string& name) : TestModule(std::move(broker), name) {
        add("ask", [this](const std::string& next) {
            std::string callers = "<" + xGetCaller() + ">";
            if (!next.empty()) {
                callers += getParentBroker()->getProxy(next)->call<std::string>("ask", "");
            }
            return callers;
        });
    }
};

TEST_F(KRDDSCall, TheCalleeKnowsWhichProcessCalls) {
    const std::string here = proxy->call<std::string>("getCaller");
    EXPECT_NE(here, "");
    EXPECT_EQ(proxy->call<std::string>("getCaller"), here);
    const auto outer = createModule<Asked>(broker, "Outer");
    const auto inner = createModule<Asked>(broker, "Inner");
    ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Outer"); }));
    const std::string callers = proxy->call<std::string>("callOther", "Outer", "ask", "Inner");
    EXPECT_THAT(callers, testing::MatchesRegex("<[0-9a-f]+><>"));
    EXPECT_THAT(callers, testing::Not(HasSubstr(here)));
}

TEST_F(KRDDSCall, ACallMayTakeLongerThanTheIntervalOfInquiries) {
    auto blocked = std::async(std::launch::async, [&] { return proxy->call<bool>("block"); });
    ASSERT_TRUE(eventually([&] { return proxy->call<int>("countBlocked") == 1; }));
    // It is asked about a few times.
    EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(3500)), std::future_status::timeout);
    proxy->call("release");
    EXPECT_TRUE(resultOf(blocked));
}

TEST_F(KRDDSCall, AModuleThatExitsRefusesCalls) {
    proxy->call("exit");
    EXPECT_THAT(errorOf([&] { proxy->call("getPid"); }).getDescription(), HasSubstr("exiting"));
    EXPECT_TRUE(eventually([&] { return broker->getModuleList().empty(); }));
}

TEST_F(KRDDSCall, AResultThatIsTooDeepToTravelIsAnError) {
    const auto here = makeModule(broker, "Here", [](TestModule& module) {
        module.add("wrap", [](int depth) {
            KRValue deep = 1;
            for (int i = 0; i < depth; ++i) {
                deep = KRValue::array(deep);
            }
            return deep;
        });
    });
    ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Here"); }));
    EXPECT_EQ(proxy->call<KRValue>("callOther", "Here", "wrap", 1), KRValue::array(1));
    const KRError error = errorOf([&] { proxy->call("callOther", "Here", "wrap", 70); });
    EXPECT_EQ(error.getMethod(), "wrap");
    EXPECT_THAT(error.getDescription(), HasSubstr("64 deep"));
}

TEST_F(KRDDSCall, APostedCallThatRunsElsewhereDoesNotKeepABrokerFromLeaving) {
    proxy->post("block");
    ASSERT_TRUE(eventually([&] { return proxy->call<int>("countBlocked") == 1; }));
    proxy.reset();
    auto leaving = std::async(std::launch::async, [this] {
        broker.reset();
        return true;
    });
    EXPECT_NO_THROW(resultOf(leaving));
    server.kill(); // so that it ends in any case
}

} // namespace

} // namespace KR::test
