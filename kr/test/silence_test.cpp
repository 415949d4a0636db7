#include "camera/silence.hpp"

#include "tool/interruption.hpp"

#include <gtest/gtest.h>

namespace KR::tool {
namespace {

using namespace std::chrono_literals;

/// A camera whose fetches fail, on the test's own clock.
class KrSilence : public testing::Test {
protected:
    bool fetchAndFail(std::chrono::milliseconds duration) {
        silence_.beginFetch();
        now_ += duration;
        return silence_.goOn(KRError("KRVideoDevice", "getImageRemote", "no image"), interruption_);
    }
    Silence silence_{[this] { return now_; }};

private:
    Silence::Clock::time_point now_{};
    Interruption interruption_;
};

TEST_F(KrSilence, IsToleratedForTenSeconds) {
    for (int i = 0; i < 9; ++i) {
        EXPECT_TRUE(fetchAndFail(1s)) << i;
    }
    EXPECT_FALSE(fetchAndFail(1s));
}

TEST_F(KrSilence, EndsWithTheNextImage) {
    for (int i = 0; i < 30; ++i) {
        EXPECT_TRUE(fetchAndFail(1s)) << i;
        silence_.end();
    }
}

TEST_F(KrSilence, DoesNotCountTimeInWhichTheProgramWasStopped) {
    EXPECT_TRUE(fetchAndFail(15s));
    EXPECT_TRUE(fetchAndFail(1s));
}

} // namespace
} // namespace KR::tool
