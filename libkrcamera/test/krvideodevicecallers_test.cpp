// Subscribers in other processes, which may end at any time.

#include "cameratest.hpp"

#include "../../libkrplatform/test/patience.hpp"

#include <krplatform/krtransport.hpp>

#include <optional>

namespace KR {

namespace {

/// A call of another process.
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

    /// The result, or the error's description.
    std::string getAnswer() const {
        EXPECT_TRUE(answered_.wait());
        return error_ ? error_->getDescription() : result_.to<std::string>();
    }

private:
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

    std::shared_ptr<Call> subscribeFrom(const std::string& process, int camera = 0) {
        auto call =
            std::make_shared<Call>(process, "subscribeCamera",
                                   std::vector<KRValue>{"their", camera, Resolution::Vga, Space::Yuv422, 30});
        processes->serve(call);
        return call;
    }

    KRTransportHost* processes = nullptr;
};

TEST_F(CallersTest, ACameraClosesWhenItsOnlySubscriberEnds) {
    start({"test"});
    EXPECT_EQ(subscribeFrom("4711")->getAnswer(), "their_1");
    EXPECT_EQ(subscribeFrom("4712")->getAnswer(), "their_2");
    processes->noticeCallerGone("4711");
    waitUntil([&] { return proxy->getSubscribers().size() == 1; });
    EXPECT_EQ(proxy->getSubscribers()[0].id, "their_2");
    processes->noticeCallerGone("4712");
    waitUntil([&] { return proxy->getCameraList()[0].state == "closed"; });
}

TEST_F(CallersTest, ASubscriberThatEndsWhileItsCameraOpensDoesNotKeepItOpen) {
    start(
        {"gst:videotestsrc ! video/x-raw,width=160,height=120,framerate=1/1 ! identity sleep-time=1500000"});
    const std::shared_ptr<Call> theirs = subscribeFrom("4711");
    waitUntil([&] { return proxy->getCameraList()[0].subscribers == 1; });
    processes->noticeCallerGone("4711");
    EXPECT_THAT(theirs->getAnswer(), testing::HasSubstr("the process that subscribed has ended"));
    waitUntil([&] { return proxy->getCameraList()[0].state == "closed"; });
    EXPECT_TRUE(proxy->getSubscribers().empty());
}

TEST_F(CallersTest, OthersKeepACameraThatOpensWhileASubscriberEnds) {
    start(
        {"gst:videotestsrc ! video/x-raw,width=160,height=120,framerate=1/1 ! identity sleep-time=1500000"});
    const std::shared_ptr<Call> ends = subscribeFrom("4711");
    const std::shared_ptr<Call> stays = subscribeFrom("4712");
    waitUntil([&] { return proxy->getCameraList()[0].subscribers == 2; });
    processes->noticeCallerGone("4711");
    EXPECT_THAT(ends->getAnswer(), testing::HasSubstr("has ended"));
    const std::string id = stays->getAnswer();
    EXPECT_EQ(proxy->getSubscribers().size(), 1U);
    fetch(id);
}

} // namespace KR
