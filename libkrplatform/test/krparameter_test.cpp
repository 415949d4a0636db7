#include "krplatform/krparameter.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krmemoryproxy.hpp"
#include "krplatform/krmodulehandle.hpp"
#include "krplatform/krproxy.hpp"

#include "eventmodules.hpp"
#include "patience.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::ThrowsMessage;

/// A module with a parameter of each type.
class Tuner : public KRModule {
public:
    Tuner(boost::shared_ptr<KRBroker> broker, const std::string& name) : KRModule(std::move(broker), name) {
        functionName("own", "Tuner", "Comes before those for parameters.");
        advertiseMethod(getCurrentMethodDescription(), this, &Tuner::own);
        declareParameter("enabled", "Whether it works.", true, [this](bool value) { enabled = value; });
        declareParameter("count", "How many.", 3, 1, 10, "faces", [this](int value) {
            if (value == 7) {
                throw KRError(getName(), "count", "seven is the number of another");
            }
            count = value;
        });
        declareParameter("threshold", "How much.", 0.25F, 0, 1, "of the pixels",
                         [this](float value) { threshold = value; });
        declareParameter("label", "What to call it.", "none", [this](const std::string& value) {
            const std::lock_guard lock(mutex_);
            label_ = value;
        });
        declareParameter("mode", "How.", "fast", {"fast", "Exact"}, [this](const std::string& value) {
            const std::lock_guard lock(mutex_);
            mode_ = value;
        });
    }
    void own() {}
    std::string getLabel() {
        const std::lock_guard lock(mutex_);
        return label_;
    }
    std::string getMode() {
        const std::lock_guard lock(mutex_);
        return mode_;
    }

    std::atomic<bool> enabled = true;
    std::atomic<int> count = 3;
    std::atomic<float> threshold = 0.25F;

private:
    std::mutex mutex_;
    std::string label_ = "none"; // guarded by mutex_
    std::string mode_ = "fast";  // guarded by mutex_
};

/// A module whose parameters the test declares.
class Freely : public KRModule {
public:
    Freely(boost::shared_ptr<KRBroker> broker, const std::string& name,
           const std::function<void(Freely&)>& declare)
        : KRModule(std::move(broker), name) {
        declare(*this);
    }
    using KRModule::declareParameter;
    using KRModule::xDeclareParameter;
    using KRModule::xNoticeParameterChange;
};

class KRParameterTest : public testing::Test {
protected:
    void set(const std::string& name, const KRValue& value) { proxy->call("setParameterValue", name, value); }
    KRValue get(const std::string& name) { return proxy->call<KRValue>("getParameterValue", name); }

    const boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRModuleHandle<Tuner> tuner = createModule<Tuner>(broker, "Tuner");
    const boost::shared_ptr<KRProxy> proxy = broker->getProxy("Tuner");
};

TEST_F(KRParameterTest, AreSetAndReadRemotely) {
    set("enabled", false);
    EXPECT_FALSE(tuner->enabled);
    set("count", 10);
    EXPECT_EQ(tuner->count, 10);
    set("threshold", 0.5F);
    EXPECT_EQ(tuner->threshold, 0.5F);
    set("label", "3");
    EXPECT_EQ(tuner->getLabel(), "3");
    set("mode", "Exact");
    EXPECT_EQ(tuner->getMode(), "Exact");
    EXPECT_EQ(get("enabled"), 0);
    EXPECT_EQ(get("count"), 10);
    EXPECT_EQ(get("threshold"), 0.5F);
    EXPECT_EQ(get("label"), "3");
    EXPECT_EQ(get("mode"), "Exact");
}

TEST_F(KRParameterTest, StartWithTheirDefaults) {
    EXPECT_EQ(get("count"), 3);
    EXPECT_EQ(get("threshold"), 0.25F);
    EXPECT_EQ(get("mode"), "fast");
}

TEST_F(KRParameterTest, AcceptAnIntForAFloatAndAChoiceInAnyCase) {
    set("threshold", 1);
    EXPECT_EQ(get("threshold"), 1.0F);
    set("mode", "EXACT");
    EXPECT_EQ(tuner->getMode(), "Exact") << "as declared";
}

TEST_F(KRParameterTest, DescribeThemselves) {
    const auto list = getParameterList(*proxy);
    std::vector<std::string> names;
    for (const KRParameterInfo& each : list) {
        names.push_back(std::string(each.getTypeName()) + " " + each.name);
    }
    EXPECT_THAT(names,
                ElementsAre("bool enabled", "int count", "float threshold", "text label", "choice mode"));
    EXPECT_EQ(list[1].description, "How many.");
    EXPECT_EQ(list[1].unit, "faces");
    EXPECT_EQ(list[1].defaultValue, 3);
    EXPECT_EQ(list[1].minimum, 1);
    EXPECT_EQ(list[1].maximum, 10);
    EXPECT_EQ(list[1].value, 3);
    EXPECT_TRUE(list[1].saved);
    EXPECT_THAT(list[4].choices, ElementsAre("fast", "Exact"));
    EXPECT_EQ(list[0].describeRange(), "true or false");
    EXPECT_EQ(list[1].describeRange(), "a whole number from 1 to 10 faces");
    EXPECT_EQ(list[2].describeRange(), "a number from 0 to 1 of the pixels");
    EXPECT_EQ(list[3].describeRange(), "a text of at most 4096 bytes");
    EXPECT_EQ(list[4].describeRange(), "one of fast, Exact");
}

TEST_F(KRParameterTest, AValueOutOfRangeIsAnErrorThatNamesTheRange) {
    const struct {
        std::string name;
        KRValue value;
        std::string message;
    } cases[] = {
        {"enabled", 2, "enabled cannot be 2; it takes true or false"},
        {"enabled", "yes", "enabled cannot be \"yes\"; it takes true or false"},
        {"count", 0, "count cannot be 0; it takes a whole number from 1 to 10 faces"},
        {"count", 11, "count cannot be 11"},
        {"count", 2.5F, "count cannot be 2.5"},
        {"threshold", 1.5F, "threshold cannot be 1.5; it takes a number from 0 to 1 of the pixels"},
        {"threshold", -0.1F, "threshold cannot be -0.1"},
        {"threshold", std::numeric_limits<float>::quiet_NaN(), "threshold cannot be nan"},
        {"threshold", "much", "threshold cannot be \"much\""},
        {"label", 3, "label cannot be 3; it takes a text"},
        {"label", std::string(4097, 'x'), "it takes a text of at most 4096 bytes"},
        {"mode", "slow", "mode cannot be \"slow\"; it takes one of fast, Exact"},
        {"mode", KRValue(), "mode cannot be invalid"},
        {"treshold", 0.5F,
         "there is no parameter treshold; parameters are enabled, count, threshold, label, mode"},
    };
    for (const auto& each : cases) {
        EXPECT_THAT(
            [&] { set(each.name, each.value); },
            ThrowsMessage<KRError>(AllOf(HasSubstr("Tuner.setParameterValue: "), HasSubstr(each.message))))
            << each.message;
    }
    EXPECT_TRUE(tuner->enabled);
    EXPECT_EQ(tuner->count, 3);
    EXPECT_EQ(get("threshold"), 0.25F);
    EXPECT_EQ(get("mode"), "fast");
    EXPECT_THROW(get("treshold"), KRError);
}

TEST_F(KRParameterTest, TheReasonOfARefusingSetterReachesTheCaller) {
    EXPECT_THAT([&] { set("count", 7); },
                ThrowsMessage<KRError>(HasSubstr("count cannot be 7 now: seven is the number of another")));
    EXPECT_EQ(get("count"), 3) << "the previous value";
    set("count", 8);
    EXPECT_EQ(get("count"), 8);
}

TEST_F(KRParameterTest, SeveralAreSetTogetherOrNotAtAll) {
    const auto setAll = [&](const std::vector<KRValue>& pairs) { proxy->call("setParameterValues", pairs); };
    EXPECT_THAT(
        [&] {
            setAll({KRValue::array("count", 5), KRValue::array("threshold", 2), KRValue::array("nothing", 1),
                    KRValue::array("mode", "slow")});
        },
        ThrowsMessage<KRError>(AllOf(HasSubstr("threshold cannot be 2"), HasSubstr("no parameter nothing"),
                                     HasSubstr("mode cannot be \"slow\""), Not(HasSubstr("count cannot")))));
    EXPECT_EQ(tuner->count, 3) << "although this one is valid";
    setAll({KRValue::array("count", 5), KRValue::array("threshold", 1)});
    EXPECT_EQ(tuner->count, 5);
    EXPECT_EQ(tuner->threshold, 1.0F);
    EXPECT_THAT(
        [&] {
            setAll({KRValue::array("count", 7), KRValue::array("threshold", 0.5F)});
        },
        ThrowsMessage<KRError>(HasSubstr("seven is the number of another")));
    EXPECT_EQ(tuner->threshold, 0.5F) << "values that no setter refuses are set";
}

TEST_F(KRParameterTest, HaveMethodsAfterTheModulesOwn) {
    std::vector<std::string> names;
    for (const auto& method : proxy->getMethodList()) {
        names.push_back(method.name);
    }
    EXPECT_THAT(names, ElementsAre("own", "getParameterList", "getParameterValue", "setParameterValue",
                                   "setParameterValues"));
    EXPECT_THAT(proxy->getMethodHelp("setParameterValue"),
                HasSubstr("setParameterValue(string name, value value)"));
}

TEST(KRParameter, AModuleWithoutAnyReturnsAnEmptyList) {
    const auto broker = KRBroker::create();
    const auto module = createModule<KRModule>(broker, "Plain");
    EXPECT_THAT(getParameterList(*broker->getProxy("Plain")), IsEmpty());
    EXPECT_THAT(module->getMethodList(), IsEmpty());
    EXPECT_THROW(broker->getProxy("Plain")->call("setParameterValue", "a", 1), KRError);
}

TEST(KRParameter, MethodsOfABaseClassWithAFixedListAreAnsweredButNotListed) {
    const auto broker = KRBroker::create();
    std::atomic<int> value = 1;
    const auto base = createModule<Freely>(broker, "Base", [&](Freely& module) {
        module.xDeclareParameter({.name = "value", .defaultValue = 1, .minimum = 0, .maximum = 9},
                                 [&](const KRValue& next) { value = next.to<int>(); });
    });
    const auto proxy = broker->getProxy("Base");
    EXPECT_THAT(proxy->getMethodList(), IsEmpty());
    EXPECT_THAT(base->getMethodList(), IsEmpty());
    proxy->call("setParameterValue", "value", 2);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(getParameterList(*proxy).size(), 1U);
    const auto derived = createModule<Freely>(broker, "Derived", [](Freely& module) {
        module.xDeclareParameter({.name = "value", .defaultValue = 1, .minimum = 0, .maximum = 9},
                                 [](const KRValue&) {});
        module.declareParameter("more", "", 1, 0, 9, "", [](int) {});
    });
    EXPECT_EQ(derived->getMethodList().size(), 4U);
}

TEST(KRParameter, AMistakeInADeclarationIsAnError) {
    const auto broker = KRBroker::create();
    const auto declare = [&](const std::function<void(Freely&)>& declaration) {
        return [&broker, declaration] { (void)createModule<Freely>(broker, "Module", declaration); };
    };
    const auto noInt = [](int) {};
    EXPECT_THAT(declare([&](Freely& m) { m.declareParameter("a b", "", 1, 0, 2, "", noInt); }),
                ThrowsMessage<KRError>(HasSubstr("parameter \"a b\": a name has letters")));
    EXPECT_THAT(declare([&](Freely& m) { m.declareParameter("", "", 1, 0, 2, "", noInt); }),
                ThrowsMessage<KRError>(HasSubstr("a name has letters")));
    EXPECT_THAT(declare([&](Freely& m) { m.declareParameter("a", "", 1, 2, 0, "", noInt); }),
                ThrowsMessage<KRError>(HasSubstr("the minimum is above the maximum")));
    EXPECT_THAT(declare([&](Freely& m) { m.declareParameter("a", "", 3, 0, 2, "", noInt); }),
                ThrowsMessage<KRError>(HasSubstr("the default: a cannot be 3")));
    EXPECT_THAT(declare([&](Freely& m) { m.declareParameter("a", "", 1, 0, 2, "", {}); }),
                ThrowsMessage<KRError>(HasSubstr("there is no setter")));
    EXPECT_THAT(declare([&](Freely& m) {
                    m.declareParameter("a", "", "x", std::vector<std::string>(), [](const std::string&) {});
                }),
                ThrowsMessage<KRError>(HasSubstr("nothing to choose from")));
    EXPECT_THAT(declare([&](Freely& m) {
                    m.declareParameter("a", "", 1, 0, 2, "", noInt);
                    m.declareParameter("a", "", true, [](bool) {});
                }),
                ThrowsMessage<KRError>(HasSubstr("declared already")));
    const auto module = createModule<Freely>(broker, "Module", [](Freely&) {});
    EXPECT_THAT([&] { module->declareParameter("a", "", 1, 0, 2, "", noInt); },
                ThrowsMessage<KRError>(HasSubstr("reachable already")));
}

/// The [parameter, value] pairs of the events, in order.
std::vector<KRValue> valuesOf(const std::vector<std::pair<std::string, KRValue>>& events) {
    std::vector<KRValue> values;
    for (const auto& event : events) {
        values.push_back(event.second);
    }
    return values;
}

TEST_F(KRParameterTest, AChangeRaisesAnEvent) {
    const auto listener = createModule<EventListener>(broker, "Listener");
    KRMemoryProxy memory(broker);
    memory.subscribeToEvent("Tuner/ParameterChanged", "Listener", "onEvent");
    set("count", 3); // unchanged
    set("count", 4);
    EXPECT_THROW(set("count", 7), KRError);
    EXPECT_THROW(set("count", 11), KRError);
    set("mode", "exact");
    EXPECT_THAT(valuesOf(listener->waitForEvents(2)),
                ElementsAre(KRValue::array("count", 4), KRValue::array("mode", "Exact")));
}

TEST(KRParameter, AChangeByOtherMeansAlsoRaisesAnEvent) {
    const auto broker = KRBroker::create();
    std::atomic<int> value = 1;
    const auto module = createModule<Freely>(broker, "Module", [&](Freely& freely) {
        freely.declareParameter(
            {.name = "value", .defaultValue = 1, .minimum = 0, .maximum = 9},
            [&](const KRValue& next) { value = next.to<int>(); }, [&] { return KRValue(value.load()); });
    });
    const auto listener = createModule<EventListener>(broker, "Listener");
    KRMemoryProxy memory(broker);
    memory.subscribeToEvent("Module/ParameterChanged", "Listener", "onEvent");
    value = 5;
    EXPECT_EQ(broker->getProxy("Module")->call<int>("getParameterValue", "value"), 5);
    module->xNoticeParameterChange("value");
    module->xNoticeParameterChange("value");
    broker->getProxy("Module")->call("setParameterValue", "value", 6);
    EXPECT_THAT(valuesOf(listener->waitForEvents(2)),
                ElementsAre(KRValue::array("value", 5), KRValue::array("value", 6)));
}

TEST(KRParameter, NeedNoMemoryModule) {
    const auto broker = KRBroker::create("local:?memory=none");
    const auto tuner = createModule<Tuner>(broker, "Tuner");
    broker->getProxy("Tuner")->call("setParameterValue", "count", 4);
    EXPECT_EQ(tuner->count, 4);
}

TEST(KRParameter, ASetterRunsWithoutALockOnTheCallersThread) {
    const auto broker = KRBroker::create();
    std::thread::id thread;
    const auto proxy = broker->getProxy("Module");
    const auto module = createModule<Freely>(broker, "Module", [&](Freely& freely) {
        freely.declareParameter("outer", "", 0, 0, 9, "", [&](int value) {
            thread = std::this_thread::get_id();
            if (value == 1) {
                EXPECT_EQ(proxy->call<int>("getParameterValue", "outer"), 0) << "not applied yet";
                proxy->call("setParameterValue", "outer", 2); // from inside itself
            }
        });
    });
    proxy->call("setParameterValue", "outer", 1);
    EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_EQ(proxy->call<int>("getParameterValue", "outer"), 2);
}

TEST(KRParameter, TheLastRequestedValueWinsEvenIfAnEarlierSetterReturnsLater) {
    const auto broker = KRBroker::create();
    Event firstRuns;
    Event firstMayEnd;
    const SetAtEnd atEnd(firstMayEnd);
    std::atomic<int> applied = 0;
    const auto module = createModule<Freely>(broker, "Module", [&](Freely& freely) {
        freely.declareParameter("value", "", 0, 0, 9, "", [&](int value) {
            if (value == 1) {
                firstRuns.set();
                EXPECT_TRUE(firstMayEnd.wait());
            }
            applied = value;
        });
    });
    const auto proxy = broker->getProxy("Module");
    std::thread first([&] { proxy->call("setParameterValue", "value", 1); });
    ASSERT_TRUE(firstRuns.wait());
    proxy->call("setParameterValue", "value", 2); // does not wait for the other
    EXPECT_EQ(applied, 2);
    EXPECT_EQ(proxy->call<int>("getParameterValue", "value"), 2);
    firstMayEnd.set();
    first.join();
    EXPECT_EQ(applied, 2);
    EXPECT_EQ(proxy->call<int>("getParameterValue", "value"), 2);
}

TEST(KRParameter, ALastRequestThatIsRefusedLeavesThePreviousValue) {
    const auto broker = KRBroker::create();
    Event firstRuns;
    Event firstMayEnd;
    const SetAtEnd atEnd(firstMayEnd);
    std::atomic<int> applied = 0;
    const auto module = createModule<Freely>(broker, "Module", [&](Freely& freely) {
        freely.declareParameter("value", "", 0, 0, 9, "", [&](int value) {
            if (value == 1) {
                firstRuns.set();
                EXPECT_TRUE(firstMayEnd.wait());
            }
            if (value == 2) {
                throw std::runtime_error("not two");
            }
            applied = value;
        });
    });
    const auto proxy = broker->getProxy("Module");
    std::thread first([&] { proxy->call("setParameterValue", "value", 1); });
    ASSERT_TRUE(firstRuns.wait());
    EXPECT_THAT([&] { proxy->call("setParameterValue", "value", 2); },
                ThrowsMessage<KRError>(HasSubstr("not two")));
    firstMayEnd.set();
    first.join();
    EXPECT_EQ(applied, 1);
    EXPECT_EQ(proxy->call<int>("getParameterValue", "value"), 1);
}

TEST(KRParameter, AfterManyConcurrentSettersValueAndSetterAgree) {
    const auto broker = KRBroker::create();
    std::atomic<int> applied = 0;
    const auto module = createModule<Freely>(broker, "Module", [&](Freely& freely) {
        freely.declareParameter("value", "", 0, 0, 100000, "", [&](int value) {
            if (value % 7 == 3) {
                throw std::runtime_error("not this one");
            }
            applied = value;
        });
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            const auto proxy = broker->getProxy("Module");
            for (int round = 0; round < 300; ++round) {
                try {
                    proxy->call("setParameterValue", "value", i * 1000 + round);
                } catch (const KRError& error) {
                    EXPECT_THAT(error.what(), HasSubstr("not this one"));
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(broker->getProxy("Module")->call<int>("getParameterValue", "value"), applied);
}

TEST(KRParameter, AModuleCanGetValuesBeforeItIsReachable) {
    const auto broker = KRBroker::create();
    broker->setInitialParameters("Tuner", {{"count", 9}, {"mode", "Exact"}});
    const auto tuner = createModule<Tuner>(broker, "Tuner");
    const auto other = createModule<Tuner>(broker, "Other");
    EXPECT_EQ(tuner->count, 9);
    EXPECT_EQ(tuner->getMode(), "Exact");
    EXPECT_EQ(other->count, 3);
}

TEST(KRParameter, AModuleIsNotCreatedWithAWrongInitialValue) {
    const auto broker = KRBroker::create();
    broker->setInitialParameters("Tuner", {{"count", 99}, {"moode", "Exact"}});
    EXPECT_THAT(
        [&] { (void)createModule<Tuner>(broker, "Tuner"); },
        ThrowsMessage<KRError>(AllOf(HasSubstr("count cannot be 99"), HasSubstr("no parameter moode"))));
    EXPECT_THAT(broker->getModuleList(), Not(Contains("Tuner")));
    broker->setInitialParameters("Tuner", {});
    const auto tuner = createModule<Tuner>(broker, "Tuner");
    EXPECT_EQ(tuner->count, 3);
}

} // namespace
} // namespace KR::test
