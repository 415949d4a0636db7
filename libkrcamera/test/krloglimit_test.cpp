#include "camera/krloglimit.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace KR {

using namespace std::chrono_literals;

// One message per second for twelve hours.
TEST(KRLogLimit, AdmitsMessagesAtGrowingIntervalsUpToAnHourAndCountsTheRest) {
    KRLogLimit limit;
    std::vector<std::pair<std::chrono::seconds, int>> admitted; // when, and how many were refused before
    for (std::chrono::seconds second = 0s; second < 12h; ++second) {
        if (const auto refused = limit.admit(KRLogLimit::Clock::time_point(second))) {
            admitted.emplace_back(second, *refused);
        }
    }
    using Minutes = std::chrono::minutes;
    std::vector<std::pair<std::chrono::seconds, int>> expected{{0s, 0}};
    for (const Minutes interval : {1min, 2min, 4min, 8min, 16min, 32min, 60min, 60min, 60min, 60min, 60min,
                                   60min, 60min, 60min, 60min, 60min}) {
        const std::chrono::seconds next = expected.back().first + interval;
        if (next < 12h) {
            expected.emplace_back(next, static_cast<int>(std::chrono::seconds(interval).count()) - 1);
        }
    }
    EXPECT_EQ(admitted, expected);
}

} // namespace KR
