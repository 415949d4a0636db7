#include "krplatform/krlog.hpp"
#include "krplatform/krproxy.hpp"

#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::ThrowsMessage;

/// A broker with one module, and a proxy on it.
struct CallFixture {
    explicit CallFixture(const TestModule::Setup& setup) : module(makeModule(broker, "module", setup)) {}

    boost::shared_ptr<KRBroker> broker = KRBroker::create("local:?memory=none");
    KRModuleHandle<TestModule> module;
    boost::shared_ptr<KRProxy> proxy = broker->getProxy("module", 0);
};

/// Every kind of argument error names the module and the method.
auto refusesAndSays(const std::string& text) {
    return ThrowsMessage<KRError>(AllOf(HasSubstr("module."), HasSubstr(text)));
}

TEST(KRModuleCall, ArgumentsAndResultsOfEveryTypeArePassed) {
    const CallFixture f([](TestModule& m) {
        m.add("bool", [](bool v) { return !v; });
        m.add("int", [](int v) { return -v; });
        m.add("float", [](float v) { return v / 2; });
        m.add("string", [](const std::string& v) { return v + "!"; });
        m.add("binary", [](const KRBinary& v) { return v; });
        m.add("array", [](std::vector<int> v) {
            v.push_back(9);
            return v;
        });
        m.add("value", [](const KRValue& v) { return KRValue::array(v, v); });
        m.add("void", [] {});
    });
    EXPECT_FALSE(f.proxy->call<bool>("bool", true));
    EXPECT_EQ(f.proxy->call<int>("int", 5), -5);
    EXPECT_EQ(f.proxy->call<float>("float", 5.0f), 2.5f);
    EXPECT_EQ(f.proxy->call<std::string>("string", "hello"), "hello!");
    EXPECT_EQ(f.proxy->call<KRBinary>("binary", KRBinary::copyOf("ab", 2)), KRBinary::copyOf("ab", 2));
    EXPECT_EQ(f.proxy->call<std::vector<int>>("array", std::vector<int>{1}), (std::vector<int>{1, 9}));
    EXPECT_EQ(f.proxy->call<KRValue>("value", "x"), KRValue::array("x", "x"));
    EXPECT_FALSE(f.proxy->call<KRValue>("void").isValid());
    f.proxy->call("void");
}

TEST(KRModuleCall, RunsOnTheCallersThreadWithoutCopyingPixels) {
    std::thread::id ranOn;
    const CallFixture f([&](TestModule& m) {
        m.add("echo", [&](const KRValue& v) {
            ranOn = std::this_thread::get_id();
            return v;
        });
    });
    const KRBinary pixels = KRBinary::copyOf("pixels", 6);
    EXPECT_EQ(f.proxy->call<KRBinary>("echo", pixels).data(), pixels.data());
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(KRModuleCall, AnOverloadIsChosenByTheNumberOfArguments) {
    const CallFixture f([](TestModule& m) {
        m.add("f", [](const std::string&, int, float) { return 3; });
        m.add("f", [](const std::string&) { return 1; });
        m.add("f", [] { return 0; });
    });
    EXPECT_EQ(f.proxy->call<int>("f"), 0);
    EXPECT_EQ(f.proxy->call<int>("f", "a"), 1);
    EXPECT_EQ(f.proxy->call<int>("f", "a", 100, 0.5f), 3);
}

TEST(KRModuleCall, AnOverloadIsChosenByTheTypesOfArguments) {
    const CallFixture f([](TestModule& m) {
        m.add("f", [](const KRValue&) { return std::string("value"); });
        m.add("f", [](float) { return std::string("float"); });
        m.add("f", [](int) { return std::string("int"); });
        m.add("f", [](const std::string&) { return std::string("string"); });
    });
    EXPECT_EQ(f.proxy->call<std::string>("f", 1), "int");
    EXPECT_EQ(f.proxy->call<std::string>("f", 1.0f), "float");
    EXPECT_EQ(f.proxy->call<std::string>("f", "1"), "string");
    EXPECT_EQ(f.proxy->call<std::string>("f", KRValue::array()), "value");
    EXPECT_EQ(f.proxy->call<std::string>("f", KRValue()), "value");
}

TEST(KRModuleCall, AnIntPrefersAFloatToAnyValue) {
    const CallFixture f([](TestModule& m) {
        m.add("f", [](const KRValue&) { return std::string("value"); });
        m.add("f", [](float) { return std::string("float"); });
    });
    EXPECT_EQ(f.proxy->call<std::string>("f", 1), "float");
}

TEST(KRModuleCall, TheOverloadWithTheFewestConversionsWins) {
    const CallFixture f([](TestModule& m) {
        m.add("f", [](float, float) { return std::string("two floats"); });
        m.add("f", [](int, float) { return std::string("int and float"); });
    });
    EXPECT_EQ(f.proxy->call<std::string>("f", 1, 1), "int and float");
    EXPECT_EQ(f.proxy->call<std::string>("f", 1.0f, 1), "two floats");
}

TEST(KRModuleCall, AValueArgumentAcceptsEveryTypeAndAFloatArgumentAnInt) {
    const CallFixture f([](TestModule& m) {
        m.add("type", [](const KRValue& v) { return std::string(getTypeName(v.getType())); });
        m.add("half", [](float v) { return v / 2; });
    });
    EXPECT_EQ(f.proxy->call<std::string>("type", KRValue()), "invalid");
    EXPECT_EQ(f.proxy->call<std::string>("type", true), "int");
    EXPECT_EQ(f.proxy->call<std::string>("type", KRBinary()), "binary");
    EXPECT_EQ(f.proxy->call<float>("half", 3), 1.5f);
}

TEST(KRModuleCall, AWrongNumberOrTypeIsAnErrorThatListsTheSignatures) {
    const CallFixture f([](TestModule& m) {
        m.functionName("set", "M", "");
        m.addParam("period", "");
        struct Object {
            void set(int) {}
        };
        static Object object;
        m.bindMethodOverload(createFunctor(&object, &Object::set));
        m.add("set", [](const std::string&, float) {});
    });
    const auto signatures = "there is: set(int period), set(string, float)";
    EXPECT_THAT([&] { f.proxy->call("set"); }, refusesAndSays(signatures));
    EXPECT_THAT([&] { f.proxy->call("set", 1, 2, 3); }, refusesAndSays(signatures));
    EXPECT_THAT([&] { f.proxy->call("set", 1.0f); }, refusesAndSays(signatures));
    EXPECT_THAT([&] { f.proxy->call("set", KRBinary(), 0.5f); }, refusesAndSays("(binary, float)"));
    EXPECT_THAT([&] { f.proxy->call("set", KRValue()); }, refusesAndSays("(invalid)"));
}

TEST(KRModuleCall, EveryModuleSetsTheLogLevelsOfItsProcess) {
    const CallFixture f([](TestModule&) {});
    const std::string before = f.proxy->call<std::string>("getLogLevels");
    f.proxy->call("setLogLevels", "error,krdds=verbose");
    EXPECT_EQ(f.proxy->call<std::string>("getLogLevels"), "error,krdds=verbose");
    EXPECT_THAT([&] { f.proxy->call("setLogLevels", "loud"); },
                refusesAndSays("setLogLevels: \"loud\" is not a level of the log"));
    EXPECT_EQ(getLogLevels(), "error,krdds=verbose");
    f.proxy->call("setLogLevels", before);
}

TEST(KRModuleCall, AnUnknownMethodIsAnErrorThatListsTheMethods) {
    const CallFixture f([](TestModule& m) {
        m.add("go", [](int) {});
        m.add("stop", [] {});
    });
    EXPECT_THAT([&] { f.proxy->call("fly", 1); }, refusesAndSays("module.fly: no such method"));
    EXPECT_THAT([&] { f.proxy->call("fly"); }, refusesAndSays("no such method; there is go, stop"));
    EXPECT_THAT([&] { f.proxy->call("getMethodHelp"); }, refusesAndSays("no such method"));
}

TEST(KRModuleCall, AnUnknownMethodIsAnErrorThatListsTheNearestNames) {
    const CallFixture f([](TestModule& m) {
        for (const char* method :
             {"subscribe", "unsubscribe", "setResolution", "getResolution", "pause", "_run"}) {
            m.add(method, [] {});
        }
    });
    const auto says = [](const std::string& names) {
        return refusesAndSays("no such method; the nearest names are " + names);
    };
    EXPECT_THAT([&] { f.proxy->call("subscrib"); }, says("subscribe, unsubscribe, "));
    EXPECT_THAT([&] { f.proxy->call("setresolutoin"); }, says("setResolution, getResolution, "));
    EXPECT_THAT([&] { f.proxy->call("Resolution"); }, says("getResolution, setResolution, "));
    EXPECT_THAT([&] { f.proxy->call("run"); }, Not(refusesAndSays("_run"))) << "internal";
}

TEST(KRModuleCall, AnErrorHasModuleAndMethodSeparately) {
    const CallFixture f([](TestModule& m) { m.add("go", [](int) {}); });
    try {
        f.proxy->call("go", "fast");
        FAIL();
    } catch (const KRError& error) {
        EXPECT_EQ(error.getModule(), "module");
        EXPECT_EQ(error.getMethod(), "go");
    }
}

TEST(KRModuleCall, AMissingModuleIsAnErrorThatNamesIt) {
    const auto broker = KRBroker::create();
    const auto proxy = broker->getProxy("nobody");
    const auto namesIt = ThrowsMessage<KRError>(HasSubstr("nobody.go: there is no module named nobody"));
    EXPECT_THAT([&] { proxy->call("go"); }, namesIt);
    EXPECT_THAT([&] { proxy->post("go"); }, namesIt);
    EXPECT_THROW((void)proxy->getMethodList(), KRError);
    EXPECT_THROW((void)proxy->getMethodHelp("go"), KRError);
    EXPECT_EQ(proxy->getModuleName(), "nobody");
}

TEST(KRModuleCall, AResultOfTheWrongTypeIsAnError) {
    const CallFixture f([](TestModule& m) { m.add("name", [] { return std::string("text"); }); });
    EXPECT_THROW((void)f.proxy->call<int>("name"), KRError);
}

TEST(KRModuleCall, ExceptionsOfTheMethodReachTheCaller) {
    const CallFixture f([](TestModule& m) {
        m.add("throwKR", [] { throw KRError("camera", "open", "unplugged"); });
        m.add("throwStd", [] { throw std::out_of_range("too far"); });
        m.add("throwInt", [] { throw 7; });
    });
    EXPECT_THAT([&] { f.proxy->call("throwKR"); },
                ThrowsMessage<KRError>(HasSubstr("camera.open: unplugged")));
    EXPECT_THROW(f.proxy->call("throwStd"), std::out_of_range);
    EXPECT_THROW(f.proxy->call("throwInt"), int);
    f.module->shutDown(); // none still counts as a running call
}

TEST(KRModuleCall, AMethodMayCallItsOwnModule) {
    const CallFixture f([](TestModule& m) {
        m.add("count", [&m](int n) {
            return n == 0 ? 0 : 1 + m.getParentBroker()->getProxy("module")->call<int>("count", n - 1);
        });
    });
    EXPECT_EQ(f.proxy->call<int>("count", 50), 50);
}

TEST(KRModuleCall, ArgumentsMayBeGivenAsValues) {
    const CallFixture f([](TestModule& m) { m.add("sub", [](int a, int b) { return a - b; }); });
    EXPECT_EQ(f.proxy->callValues("sub", std::array<KRValue, 2>{5, 3}), 2);
}

TEST(KRProxy, NeedsABroker) {
    EXPECT_THROW(KRProxy(nullptr, "module"), KRError);
}

} // namespace
} // namespace KR
