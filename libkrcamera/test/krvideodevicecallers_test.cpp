// Subscribers in other processes that may end at any time.

#include "cameratest.hpp"

#include "../../libkrplatform/test/patience.hpp"

#include <krplatform/krtransport.hpp>

#include <atomic>
#include <optional>
#include <vector>

namespace KR {

namespace {

/// A call from another process.
class Call : public KRIncomingCall {
public:
    Call(const std::string& from, const std::string& operation, std::vector<KRValue> values)
        : KRIncomingCall(from, "KRVideoDevice", operation, std::move(values)) {}

    void succeed(const KRValue& result) noexcept override {
        result_ = result;
        answered_.set();
    }
    void fail(const KRError& error) noexcept override {
        error_ = error;
        answered_.set();
    }

    bool isCallerGone() const noexcept override { return isCallerGone_; }
    void setCallerGone() noexcept { isCallerGone_ = true; }

    /// The result, or the error's description.
    std::string getAnswer() const {
        EXPECT_TRUE(answered_.wait());
        return error_ ? error_->getDescription() : result_.to<std::string>();
    }

private:
    std::atomic<bool> isCallerGone_ = false;
    KRValue result_;               // written before answered_
    std::optional<KRError> error_; // written before answered_
    test::Event answered_;
};

/// A link without other processes: the test makes their calls.
class Link : public KRTransport {
public:
    void start() override {}
    void announceModules() noexcept override {}
    void claim(const std::string& /*name*/) override {}
    void stop() noexcept override {}
};

} // namespace

class CallersTest : public CameraTest {
protected:
    CallersTest() {
        registerTransport("fake:", [this](const std::string&, KRTransportHost& host) {
            processes = &host;
            return KRBrokerOptions{true, std::make_unique<Link>()};
        });
        broker = KRBroker::create("fake:");
    }

    std::shared_ptr<Call> makeSubscription(const std::string& process) {
        calls_.push_back(
            std::make_shared<Call>(process, "subscribeCamera",
                                   std::vector<KRValue>{"their", 0, Resolution::Vga, Space::Yuv422, 30}));
        return calls_.back();
    }
    std::shared_ptr<Call> subscribeFrom(const std::string& process) {
        std::shared_ptr<Call> call = makeSubscription(process);
        processes->serve(call);
        return call;
    }
    void end(const std::string& process) {
        for (const std::shared_ptr<Call>& call : calls_) {
            if (call->caller == process) {
                call->setCallerGone();
            }
        }
        processes->noticeCallerGone(process);
    }

    KRTransportHost* processes = nullptr;

private:
    std::vector<std::shared_ptr<Call>> calls_;
};

TEST_F(CallersTest, ACameraClosesWhenItsOnlySubscriberEnds) {
    start({"test"});
    EXPECT_EQ(subscribeFrom("4711")->getAnswer(), "their_1");
    EXPECT_EQ(subscribeFrom("4712")->getAnswer(), "their_2");
    end("4711");
    waitUntil([&] { return proxy->getSubscribers().size() == 1; });
    EXPECT_EQ(proxy->getSubscribers()[0].id, "their_2");
    end("4712");
    waitUntil([&] { return proxy->getCameraList()[0].state == "closed"; });
}

TEST_F(CallersTest, ASubscriberThatEndsWhileItsCameraOpensDoesNotKeepItOpen) {
    start(
        {"gst:videotestsrc ! video/x-raw,width=160,height=120,framerate=1/1 ! identity sleep-time=1500000"});
    const std::shared_ptr<Call> theirs = subscribeFrom("4711");
    waitUntil([&] { return proxy->getCameraList()[0].subscribers == 1; });
    end("4711");
    EXPECT_THAT(theirs->getAnswer(), testing::HasSubstr("the process that subscribed has ended"));
    waitUntil([&] { return proxy->getCameraList()[0].state == "closed"; });
    EXPECT_TRUE(proxy->getSubscribers().empty());
}

// The call was accepted before its process ended, but gets a thread only after that end was reported.
TEST_F(CallersTest, ASubscriberThatEndsBeforeItsCallBeginsLeavesNoCameraOpen) {
    start({"test"});
    const std::shared_ptr<Call> theirs = makeSubscription("4711");
    end("4711");
    processes->serve(theirs);
    EXPECT_THAT(theirs->getAnswer(), testing::HasSubstr("the process that subscribed has ended"));
    EXPECT_TRUE(proxy->getSubscribers().empty());
    EXPECT_EQ(proxy->getCameraList()[0].state, "closed");
}

TEST_F(CallersTest, OtherSubscribersKeepACameraOpenWhenOneEnds) {
    start(
        {"gst:videotestsrc ! video/x-raw,width=160,height=120,framerate=1/1 ! identity sleep-time=1500000"});
    const std::shared_ptr<Call> ends = subscribeFrom("4711");
    const std::shared_ptr<Call> stays = subscribeFrom("4712");
    waitUntil([&] { return proxy->getCameraList()[0].subscribers == 2; });
    end("4711");
    EXPECT_THAT(ends->getAnswer(), testing::HasSubstr("has ended"));
    const std::string id = stays->getAnswer();
    EXPECT_EQ(proxy->getSubscribers().size(), 1U);
    fetch(id);
}

} // namespace KR
