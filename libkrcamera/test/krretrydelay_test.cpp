#include "camera/krretrydelay.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace KR {

using namespace std::chrono_literals;

TEST(KRRetryDelay, DoublesFrom250MillisecondsUpToFiveSeconds) {
    KRRetryDelay delay;
    std::vector<std::chrono::milliseconds> delays;
    for (int i = 0; i < 8; ++i) {
        delays.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(delay.next(0ms)));
    }
    EXPECT_THAT(delays, testing::ElementsAre(250ms, 500ms, 1s, 2s, 4s, 5s, 5s, 5s));
}

TEST(KRRetryDelay, StartsOverAfterTheSourceDeliveredForMoreThanTwiceTheDelay) {
    KRRetryDelay delay;
    while (delay.next(0ms) < 5s) {
    }
    EXPECT_EQ(delay.next(10s), 5s);
    EXPECT_EQ(delay.next(11s), 250ms);
    EXPECT_EQ(delay.next(500ms), 500ms);
}

} // namespace KR
