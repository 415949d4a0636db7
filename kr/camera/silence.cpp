#include "camera/silence.hpp"

#include "tool/command.hpp"
#include "tool/errortext.hpp"
#include "tool/interruption.hpp"

#include <algorithm>
#include <utility>

namespace KR::tool {

Silence::Silence(std::function<Clock::time_point()> now) : now_(std::move(now)), fetchStart_(now_()) {}

bool Silence::goOn(const KRError& error, Interruption& interruption) {
    constexpr std::chrono::milliseconds kPause{50};  // a camera that has failed refuses at once
    constexpr std::chrono::seconds kLongestFetch{3}; // a longer one was a stop of this program
    const bool isNew = length_ == Clock::duration::zero();
    length_ += std::min<Clock::duration>(now_() - fetchStart_, kLongestFetch) + kPause;
    if (length_ > kPatience) {
        return false;
    }
    if (isNew) {
        printError(describe(error) + "; continuing without it");
    }
    interruption.waitFor(kPause);
    return true;
}

} // namespace KR::tool
