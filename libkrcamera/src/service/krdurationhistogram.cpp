#include "service/krdurationhistogram.hpp"

#include <algorithm>
#include <bit>
#include <cmath>

namespace KR {

namespace {

constexpr std::int64_t day_usec = std::int64_t{24} * 60 * 60 * 1'000'000;
constexpr int classesPerOctave = 32;

std::size_t getClass(std::uint64_t usec) noexcept {
    const int shift = std::max(0, static_cast<int>(std::bit_width(usec)) - 6);
    return static_cast<std::size_t>(classesPerOctave * shift) + (usec >> shift);
}

std::int64_t getUpperEnd(std::size_t index) noexcept {
    const int shift = std::max(0, static_cast<int>(index) / classesPerOctave - 1);
    const std::int64_t lead = static_cast<std::int64_t>(index) - classesPerOctave * shift;
    return ((lead + 1) << shift) - 1;
}

float toMilliseconds(std::int64_t usec) noexcept {
    return static_cast<float>(static_cast<double>(usec) / 1000);
}

} // namespace

void KRDurationHistogram::add(std::chrono::steady_clock::duration duration) noexcept {
    const std::int64_t usec = std::clamp<std::int64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(duration).count(), 0, day_usec);
    ++counts_[getClass(static_cast<std::uint64_t>(usec))];
    ++count_;
    max_usec_ = std::max(max_usec_, usec);
}

KRDurations KRDurationHistogram::summarize() const noexcept {
    return {getQuantile(0.5), getQuantile(0.99), toMilliseconds(max_usec_)};
}

float KRDurationHistogram::getQuantile(double part) const noexcept {
    const auto wanted = static_cast<std::uint64_t>(std::ceil(part * static_cast<double>(count_)));
    std::uint64_t passed = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
        passed += counts_[i];
        if (passed > 0 && passed >= wanted) {
            return toMilliseconds(std::min(getUpperEnd(i), max_usec_));
        }
    }
    return 0;
}

} // namespace KR
