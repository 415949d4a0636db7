#include "krvision/krimage.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

namespace KR {
namespace {

TEST(KRImageThreads, CopiesMayBeReleasedOnDifferentThreads) {
    std::optional<KRImage> first(std::in_place, 0, 9, false, 0.4f, 0.3f, -0.4f, -0.3f);
    std::optional<KRImage> second = first;
    std::thread other([&second] { second.reset(); });
    first.reset();
    other.join();
}

} // namespace
} // namespace KR
