#include "krplatform/krfunctor.hpp"

#include "recordedlog.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace KR {
namespace {

using testing::ElementsAre;

struct Base {
    virtual ~Base() = default;
    virtual std::string who() { return "base"; }
    void nothing() {}
    float take(bool, int, float, const std::string&, const KRBinary&, const std::vector<int>&,
               KRValue) const {
        return 1.5f;
    }
    std::vector<std::string> list() { return {"a", "b"}; }
};
struct Derived : Base {
    std::string who() override { return "derived"; }
};

TEST(KRFunctor, KnowsTheTypesOfArgumentsAndResult) {
    Base object;
    const auto functor = createFunctor(&object, &Base::take);
    using enum KRArgumentType;
    EXPECT_THAT(functor->getFunction().arguments,
                ElementsAre(Bool, Int, Float, String, Binary, Array, Value));
    EXPECT_EQ(functor->getFunction().result, Float);
    EXPECT_THAT(createFunctor(&object, &Base::nothing)->getFunction().arguments, ElementsAre());
    EXPECT_EQ(createFunctor(&object, &Base::nothing)->getFunction().result, Void);
    EXPECT_EQ(createFunctor(&object, &Base::list)->getFunction().result, Array);
}

TEST(KRFunctor, CallsAVirtualMemberVirtually) {
    Derived object;
    const auto functor = createFunctor(static_cast<Base*>(&object), &Base::who);
    EXPECT_EQ(functor->getFunction().invoke({}), "derived");
}

TEST(KRFunctor, BindsAMemberOfABaseToADerivedObject) {
    Derived object;
    EXPECT_EQ(createFunctor(&object, &Base::list)->getFunction().invoke({}), KRValue::array("a", "b"));
}

TEST(KRFunctor, AVoidMemberReturnsAnInvalidValue) {
    Base object;
    EXPECT_FALSE(createFunctor(&object, &Base::nothing)->getFunction().invoke({}).isValid());
}

TEST(KRFunctor, CallOfTheBaseClassLogsAndLeavesTheResultUnchanged) {
    Base object;
    const auto functor = createFunctor(&object, &Base::who);
    KRValue result = "untouched";
    const test::RecordedLog recorded;
    functor->call(KRValue::array(1), result);
    EXPECT_EQ(result, "untouched");
    const auto records = recorded.find(KRLogLevel::Error, "");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, "krcommon.KRFunctor");
    EXPECT_EQ(records[0].message, "KRFunctor::call not implemented");
}

TEST(KRFunctor, CallMayBeOverridden) {
    struct Doubling : KRFunctorBase {
        Doubling() : KRFunctorBase({}) {}
        void call(const KRValue& params, KRValue& result) override { result = 2 * params[0].to<int>(); }
    };
    const boost::shared_ptr<KRFunctorBase> functor = boost::make_shared<Doubling>();
    KRValue result;
    functor->call(KRValue::array(21), result);
    EXPECT_EQ(result, 42);
}

TEST(KRFunctor, ReleasesItsFunctionWhenDestroyed) {
    const auto held = std::make_shared<int>(0);
    {
        KRFunctorBase functor(
            {{}, KRArgumentType::Void, [held](std::span<const KRValue>) { return KRValue(); }});
        EXPECT_EQ(held.use_count(), 2);
    }
    EXPECT_EQ(held.use_count(), 1);
}

TEST(KRArgumentType, HasAReadableName) {
    using enum KRArgumentType;
    std::vector<std::string> names;
    for (const KRArgumentType type : {Void, Bool, Int, Float, String, Binary, Array, Value}) {
        names.emplace_back(getTypeName(type));
    }
    EXPECT_THAT(names, ElementsAre("void", "bool", "int", "float", "string", "binary", "array", "value"));
}

} // namespace
} // namespace KR
