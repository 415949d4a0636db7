#include "service/krdurationhistogram.hpp"

#include <gtest/gtest.h>

namespace KR {

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(KRDurationHistogram, WithoutDurationsEverythingIsZero) {
    const KRDurations none = KRDurationHistogram().summarize();
    EXPECT_EQ(none.median_ms, 0);
    EXPECT_EQ(none.p99_ms, 0);
    EXPECT_EQ(none.max_ms, 0);
}

TEST(KRDurationHistogram, OneDurationIsMedianAndMaximum) {
    for (const int usec : {0, 1, 63, 64, 65, 1000, 33333, 123456789}) {
        KRDurationHistogram histogram;
        histogram.add(microseconds(usec));
        EXPECT_FLOAT_EQ(histogram.summarize().median_ms, static_cast<float>(usec) / 1000);
        EXPECT_FLOAT_EQ(histogram.summarize().p99_ms, static_cast<float>(usec) / 1000);
        EXPECT_FLOAT_EQ(histogram.summarize().max_ms, static_cast<float>(usec) / 1000);
    }
}

TEST(KRDurationHistogram, QuantilesAreNeverTooSmallAndAtMostATwentyFifthTooLarge) {
    for (const int scale : {1, 7, 1000, 50000}) {
        KRDurationHistogram histogram;
        for (int i = 1; i <= 1000; ++i) {
            histogram.add(microseconds(i * scale));
        }
        const KRDurations durations = histogram.summarize();
        const float ms = static_cast<float>(scale) / 1000;
        EXPECT_GE(durations.median_ms, 500 * ms);
        EXPECT_LE(durations.median_ms, 500 * ms * 1.04F);
        EXPECT_GE(durations.p99_ms, 990 * ms);
        EXPECT_LE(durations.p99_ms, 1000 * ms);
        EXPECT_FLOAT_EQ(durations.max_ms, 1000 * ms);
    }
}

TEST(KRDurationHistogram, DurationsOutOfRangeCountAsItsLimits) {
    KRDurationHistogram histogram;
    histogram.add(milliseconds(-5));
    EXPECT_EQ(histogram.summarize().max_ms, 0);
    histogram.add(std::chrono::hours(100));
    EXPECT_FLOAT_EQ(histogram.summarize().max_ms, 24.0F * 60 * 60 * 1000);
}

} // namespace KR
