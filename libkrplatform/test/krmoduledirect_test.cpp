#include "krplatform/krbroker.hpp"
#include "krplatform/krmodule.hpp"
#include "krplatform/krproxy.hpp"

#include "patience.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace KR {
namespace {

using test::Event;

/// A module that is constructed without the factory and runs a loop until it is shut down.
class Looping : public KRModule {
public:
    Looping(boost::shared_ptr<KRBroker> broker, const std::string& name, std::string* fate)
        : KRModule(std::move(broker), name), fate_(fate) {
        functionName("loop", "Looping", "");
        advertiseMethod(getCurrentMethodDescription(), this, &Looping::loop);
        functionName("touch", "Looping", "");
        setReturn("alive", "");
        advertiseMethod(getCurrentMethodDescription(), this, &Looping::touch);
    }
    ~Looping() override {
        shutDown();
        *fate_ = ended_ ? "destroyed after the loop" : "destroyed under the loop";
    }

    void loop() {
        looping.set();
        EXPECT_TRUE(stop_.wait());
        ended_ = true;
    }
    int touch() { return ++touched_; }

    Event looping;

protected:
    void xShutDown() override { stop_.set(); }

private:
    std::string* fate_;
    Event stop_;
    bool ended_ = false;
    int touched_ = 0;
};

TEST(KRModuleDirect, IsReachableAfterMakeReachable) {
    const auto broker = KRBroker::create();
    std::string fate;
    Looping module(broker, "m", &fate);
    EXPECT_THROW(broker->getProxy("m")->call("touch"), KRError);
    EXPECT_FALSE(broker->getSession().waitForService("m", std::chrono::milliseconds(0)));
    module.makeReachable();
    EXPECT_EQ(broker->getProxy("m")->call<int>("touch"), 1);
    module.makeReachable();
    EXPECT_EQ(broker->getProxy("m")->call<int>("touch"), 2);
}

TEST(KRModuleDirect, ShutsDownInItsOwnDestructor) {
    const auto broker = KRBroker::create();
    std::string fate;
    {
        Looping module(broker, "m", &fate);
        module.makeReachable();
        broker->getProxy("m")->post("loop");
        ASSERT_TRUE(module.looping.wait());
    }
    EXPECT_EQ(fate, "destroyed after the loop");
    Looping again(broker, "m", &fate);
}

TEST(KRModuleDirect, MayBeShutDownMoreThanOnce) {
    const auto broker = KRBroker::create();
    std::string fate;
    Looping module(broker, "m", &fate);
    module.makeReachable();
    module.shutDown();
    EXPECT_TRUE(module.isExiting());
    module.shutDown();
    module.makeReachable();
    EXPECT_THROW(broker->getProxy("m")->call("touch"), KRError) << "a shut-down module stays so";
}

TEST(KRModuleDirect, NeedNeverBeReachable) {
    const auto broker = KRBroker::create();
    std::string fate;
    { const Looping module(broker, "m", &fate); }
    const Looping again(broker, "m", &fate); // the name is free
}

TEST(KRModuleDirect, AShutDownInsideItsOwnCallDoesNotWaitForThatCall) {
    class Leaving : public KRModule {
    public:
        explicit Leaving(boost::shared_ptr<KRBroker> broker) : KRModule(std::move(broker), "m") {
            functionName("leave", "Leaving", "");
            advertiseMethod(getCurrentMethodDescription(), this, &Leaving::leave);
            makeReachable();
        }
        ~Leaving() override { shutDown(); }
        void leave() {
            shutDown();
            left = true;
        }
        bool left = false;
    };
    const auto broker = KRBroker::create();
    const Leaving module(broker);
    broker->getProxy("m")->call("leave");
    EXPECT_TRUE(module.left);
    EXPECT_TRUE(module.isExiting());
}

} // namespace
} // namespace KR
