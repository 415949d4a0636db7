#include "tool/timestamp.hpp"

#include <gtest/gtest.h>

#include <cstdint>

namespace KR::tool {
namespace {

constexpr std::int64_t kNow = 1'500'000'000'000'000;
constexpr std::int64_t kSecond = 1'000'000;

std::string ageOf(std::int64_t age) {
    return formatAge(kNow - age, kNow);
}

TEST(KrTimestamp, AgesHaveASuitableUnit) {
    EXPECT_EQ(ageOf(0), "0 ms");
    EXPECT_EQ(ageOf(250'000), "250 ms");
    EXPECT_EQ(ageOf(7'500'000), "7.5 s");
    EXPECT_EQ(ageOf(42 * kSecond), "42 s");
    EXPECT_EQ(ageOf(12 * 60 * kSecond), "12 min");
    EXPECT_EQ(ageOf(5 * 3600 * kSecond), "5 h");
    EXPECT_EQ(ageOf(12 * 86400 * kSecond), "12 d");
}

TEST(KrTimestamp, AgesRoundUpToTheNextUnit) {
    EXPECT_EQ(ageOf(999'499), "999 ms");
    EXPECT_EQ(ageOf(999'500), "1.0 s");
    EXPECT_EQ(ageOf(9'950'000), "10 s");
    EXPECT_EQ(ageOf(99'500'000), "2 min");
}

TEST(KrTimestamp, AnAgeInTheFutureIsNegative) {
    EXPECT_EQ(ageOf(-3 * kSecond), "-3.0 s");
}

} // namespace
} // namespace KR::tool
