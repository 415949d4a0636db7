#include "krplatform/krmodule.hpp"

#include "krplatform/krproxy.hpp"

#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

/// Publishes an overloaded method and one with a result, like a module author.
class Detector : public KRModule {
public:
    Detector(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : KRModule(std::move(broker), name) {
        functionName("subscribe", "Detector", "Subscribes to the detector.", 0);
        addParam("name", "Name of the module.");
        addParam("period", "Period in milliseconds.");
        bindMethodOverload(createFunctor(
            this, static_cast<void (Detector::*)(const std::string&, int)>(&Detector::subscribe)));
        functionName("subscribe", "Detector", "Subscribes with defaults.", 0);
        addParam("name", "Name of the module.");
        bindMethodOverload(
            createFunctor(this, static_cast<void (Detector::*)(const std::string&)>(&Detector::subscribe)));
        functionName("getPrecision", "Detector", "Gets the precision.", 0);
        setReturn("precision", "Precision of the detector.");
        advertiseMethod(getCurrentMethodDescription(), this, &Detector::getPrecision);
    }

    void subscribe(const std::string&, int) {}
    void subscribe(const std::string&) {}
    virtual float getPrecision() { return 0.5f; }
};

class BetterDetector : public Detector {
public:
    using Detector::Detector;
    float getPrecision() override { return 0.75f; }
};

std::vector<std::string> getSignatures(const std::vector<KRMethodDescription>& methods) {
    std::vector<std::string> signatures;
    for (const KRMethodDescription& method : methods) {
        signatures.push_back(method.getSignature());
    }
    return signatures;
}

TEST(KRModulePublication, TheMethodListIsInOrderOfPublicationLocallyAndRemotely) {
    const auto broker = KRBroker::create();
    const auto module = createModule<Detector>(broker, "detector");
    const auto expected = ElementsAre("subscribe(string name, int period)", "subscribe(string name)",
                                      "getPrecision(): float precision");
    EXPECT_THAT(getSignatures(module->getMethodList()), expected);
    EXPECT_THAT(getSignatures(broker->getProxy("detector")->getMethodList()), expected);
}

TEST(KRModulePublication, ARemoteListHasEveryText) {
    const auto broker = KRBroker::create();
    const auto module = createModule<Detector>(broker, "detector");
    const auto methods = broker->getProxy("detector")->getMethodList();
    ASSERT_EQ(methods.size(), 3u);
    EXPECT_EQ(methods[0].name, "subscribe");
    EXPECT_EQ(methods[0].className, "Detector");
    EXPECT_EQ(methods[0].description, "Subscribes to the detector.");
    ASSERT_EQ(methods[0].parameters.size(), 2u);
    EXPECT_EQ(methods[0].parameters[1].name, "period");
    EXPECT_EQ(methods[0].parameters[1].description, "Period in milliseconds.");
    EXPECT_THAT(methods[0].argumentTypes, ElementsAre(KRArgumentType::String, KRArgumentType::Int));
    EXPECT_EQ(methods[0].resultType, KRArgumentType::Void);
    EXPECT_EQ(methods[0].result.name, "");
    EXPECT_EQ(methods[2].result.name, "precision");
    EXPECT_EQ(methods[2].result.description, "Precision of the detector.");
    EXPECT_EQ(methods[2].resultType, KRArgumentType::Float);
}

TEST(KRModulePublication, TheHelpDescribesEveryOverload) {
    const auto broker = KRBroker::create();
    const auto module = createModule<Detector>(broker, "detector");
    const auto proxy = broker->getProxy("detector");
    EXPECT_EQ(proxy->getMethodHelp("subscribe"), "subscribe(string name, int period)\n"
                                                 "  Subscribes to the detector.\n"
                                                 "  name: Name of the module.\n"
                                                 "  period: Period in milliseconds.\n"
                                                 "subscribe(string name)\n"
                                                 "  Subscribes with defaults.\n"
                                                 "  name: Name of the module.\n");
    EXPECT_EQ(proxy->getMethodHelp("getPrecision"), "getPrecision(): float precision\n"
                                                    "  Gets the precision.\n"
                                                    "  returns precision: Precision of the detector.\n");
    EXPECT_THAT([&] { (void)proxy->getMethodHelp("fly"); }, ThrowsMessage<KRError>(HasSubstr("fly")));
}

TEST(KRModulePublication, AVirtualMethodReachesTheDerivedClass) {
    const auto broker = KRBroker::create();
    const auto module = createModule<BetterDetector>(broker, "detector");
    EXPECT_EQ(broker->getProxy("detector")->call<float>("getPrecision"), 0.75f);
}

TEST(KRModulePublication, AModuleMayPublishNothing) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "silent");
    EXPECT_THAT(module->getMethodList(), IsEmpty());
    EXPECT_THAT(broker->getProxy("silent")->getMethodList(), IsEmpty());
}

TEST(KRModulePublication, AModulesOwnGetMethodListTakesPrecedence) {
    const auto broker = KRBroker::create();
    const auto module =
        makeModule(broker, "own", [](TestModule& m) { m.add("getMethodList", [] { return 42; }); });
    EXPECT_EQ(broker->getProxy("own")->call<int>("getMethodList"), 42);
}

TEST(KRModulePublication, FunctionNameStartsANewDescription) {
    const auto broker = KRBroker::create();
    makeModule(broker, "m", [](TestModule& m) {
        m.functionName("first", "M", "text");
        m.addParam("parameter", "text");
        m.setReturn("result", "text");
        m.functionName("second", "M", "");
        EXPECT_EQ(m.getCurrentMethodDescription().name, "second");
        EXPECT_THAT(m.getCurrentMethodDescription().parameters, IsEmpty());
        EXPECT_EQ(m.getCurrentMethodDescription().result.name, "");
    });
}

TEST(KRModulePublication, ADescriptionWithAWrongNumberOfParametersIsRefused) {
    const auto broker = KRBroker::create();
    struct Object {
        void take(int) {}
    } object;
    makeModule(broker, "m", [&](TestModule& m) {
        m.functionName("take", "M", "");
        EXPECT_THAT([&] { m.advertiseMethod(m.getCurrentMethodDescription(), &object, &Object::take); },
                    ThrowsMessage<KRError>(HasSubstr("takes 1 arguments, but 0 parameters are described")));
        EXPECT_THAT(m.getMethodList(), IsEmpty());
    });
}

TEST(KRModulePublication, AnEmptyFunctorIsRefused) {
    const auto broker = KRBroker::create();
    makeModule(broker, "m", [](TestModule& m) {
        m.functionName("nothing", "M", "");
        EXPECT_THROW(m.bindMethodOverload(nullptr), KRError);
        EXPECT_THROW(m.bindMethodOverload(boost::make_shared<KRFunctorBase>(KRGenericFunction{})), KRError);
    });
}

TEST(KRModulePublication, TheSameArgumentTypesUnderOneNameAreRefused) {
    const auto broker = KRBroker::create();
    makeModule(broker, "m", [](TestModule& m) {
        m.add("take", [](int) {});
        EXPECT_THAT([&] { m.add("take", [](int) { return 1; }); },
                    ThrowsMessage<KRError>(HasSubstr("published already as take(int)")));
        EXPECT_NO_THROW(m.add("take", [](float) {}));
        EXPECT_NO_THROW(m.add("keep", [](int) {}));
    });
}

TEST(KRModulePublication, NothingCanBePublishedOnceTheModuleIsReachable) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "m");
    EXPECT_THAT([&] { module->add("late", [] {}); }, ThrowsMessage<KRError>(HasSubstr("reachable already")));
    EXPECT_THAT(module->getMethodList(), IsEmpty());
}

TEST(KRModulePublication, NothingCanBePublishedAfterAReachableModuleWasAskedToExit) {
    const auto broker = KRBroker::create();
    const auto module = makeModule(broker, "m"); // calls that still run look methods up
    module->exit();
    EXPECT_THROW(module->add("late", [] {}), KRError);
}

} // namespace
} // namespace KR
