#include "krplatform/krmodulehandle.hpp"

#include "krplatform/krproxy.hpp"

#include "diary.hpp"
#include "patience.hpp"
#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KR {
namespace {

using test::Diary;
using test::Event;
using test::makeModule;
using test::TestModule;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

TEST(KRModuleHandleDropped, InsideACallTheModuleIsDestroyedAfterTheCall) {
    const auto broker = KRBroker::create();
    Diary diary;
    Event destroyed;
    KRModuleHandle<TestModule> module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("leave", [&] {
            module.reset();
            EXPECT_THAT([&] { broker->getProxy("m")->call("leave"); },
                        ThrowsMessage<KRError>(HasSubstr("exiting")));
            EXPECT_EQ(m.getName(), "m") << "the module still exists";
            diary.note("call ends");
        });
        m.onDestroyed = [&] {
            diary.note("destroyed");
            destroyed.set();
        };
    });
    broker->getProxy("m")->call("leave");
    ASSERT_TRUE(destroyed.wait());
    EXPECT_THAT(diary.read(), ElementsAre("call ends", "destroyed"));
    EXPECT_TRUE(test::eventually([&] {
        try {
            makeModule(broker, "m"); // the name is free again
            return true;
        } catch (const KRError&) {
            return false;
        }
    }));
}

TEST(KRModuleHandleDropped, InsideAPostedCallOrFunctionTheModuleIsDestroyedAfterIt) {
    const auto broker = KRBroker::create();
    for (const bool ownFunction : {false, true}) {
        Diary diary;
        Event destroyed;
        Event assigned;
        KRModuleHandle<TestModule> module;
        const auto leave = [&] {
            EXPECT_TRUE(assigned.wait());
            module.reset();
            diary.note("call ends");
        };
        module = makeModule(broker, ownFunction ? "a" : "b", [&](TestModule& m) {
            m.add("leave", leave);
            m.onDestroyed = [&] {
                diary.note("destroyed");
                destroyed.set();
            };
        });
        if (ownFunction) {
            module->xPost("leave", leave);
        } else {
            broker->getProxy("b")->post("leave");
        }
        assigned.set();
        ASSERT_TRUE(destroyed.wait());
        EXPECT_THAT(diary.read(), ElementsAre("call ends", "destroyed"));
    }
}

TEST(KRModuleHandleDropped, InsideANestedCallTheModuleIsDestroyedAfterTheOuterCall) {
    const auto broker = KRBroker::create();
    Diary diary;
    Event destroyed;
    KRModuleHandle<TestModule> outer = makeModule(broker, "outer", [&](TestModule& m) {
        m.add("go", [&] {
            broker->getProxy("inner")->call("drop");
            diary.note("outer call ends");
        });
        m.onDestroyed = [&] {
            diary.note("outer destroyed");
            destroyed.set();
        };
    });
    const auto inner =
        makeModule(broker, "inner", [&](TestModule& m) { m.add("drop", [&] { outer.reset(); }); });
    broker->getProxy("outer")->call("go");
    ASSERT_TRUE(destroyed.wait());
    EXPECT_THAT(diary.read(), ElementsAre("outer call ends", "outer destroyed"));
}

TEST(KRModuleHandleDropped, AModuleMayDestroyAnotherInsideItsCall) {
    const auto broker = KRBroker::create();
    bool destroyed = false;
    auto other =
        makeModule(broker, "other", [&](TestModule& m) { m.onDestroyed = [&] { destroyed = true; }; });
    const auto module = makeModule(broker, "m", [&](TestModule& m) {
        m.add("drop", [&] {
            other.reset();
            EXPECT_TRUE(destroyed) << "reset() returns when the module is destroyed";
        });
    });
    broker->getProxy("m")->call("drop");
}

} // namespace
} // namespace KR
