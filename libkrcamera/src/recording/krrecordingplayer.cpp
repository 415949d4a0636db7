#include "recording/krrecordingplayer.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace KR {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::microseconds usualStep(33333);
constexpr std::chrono::seconds longestStep(10);
constexpr std::chrono::milliseconds longestWait(50);
constexpr int loggedWrongTimes = 2;

} // namespace

KRRecordingPlayer::KRRecordingPlayer(const std::string& path, int stream)
    : path_(path), recording_(path, stream), capture_(recording_.read(0)), due_(steady_clock::now()) {}

std::optional<KRCapture> KRRecordingPlayer::pull() {
    const auto now = steady_clock::now();
    sleepUntil(std::min<steady_clock::time_point>(due_, now + longestWait));
    if (due_ > now + longestWait) {
        return std::nullopt;
    }
    KRCapture image = std::exchange(capture_, {});
    image.taken = due_;
    readNext();
    due_ += getStep(image.captureTime_usec, capture_.captureTime_usec);
    return image;
}

void KRRecordingPlayer::readNext() {
    next_ = (next_ + 1) % recording_.getFrameCount();
    capture_ = recording_.read(next_);
}

std::chrono::microseconds KRRecordingPlayer::getStep(std::int64_t from_usec, std::int64_t to_usec) {
    // Unsigned: time stamps from a file may differ by more than an int64_t holds.
    const auto from = static_cast<std::uint64_t>(from_usec);
    const auto to = static_cast<std::uint64_t>(to_usec);
    if (next_ == 0 || from == to) { // at the beginning again, or without time stamps
        return usualStep;
    }
    if (to_usec < from_usec) {
        logWrongTime(from - to, "before");
        return usualStep;
    }
    if (to - from > static_cast<std::uint64_t>(std::chrono::microseconds(longestStep).count())) {
        logWrongTime(to - from, "after");
        return usualStep;
    }
    return std::chrono::microseconds(to - from);
}

void KRRecordingPlayer::logWrongTime(std::uint64_t gap_usec, const char* direction) {
    if (wrongTimes_ > loggedWrongTimes) {
        return;
    }
    ++wrongTimes_;
    const std::string file = escapeText(path_);
    if (wrongTimes_ > loggedWrongTimes) {
        logWarning("KRVideoDevice", file + ": further wrong time stamps of this recording are not logged");
        return;
    }
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f", static_cast<double>(gap_usec) / 1e6);
    logWarning("KRVideoDevice", file + ": the time stamp of image " + std::to_string(next_) + " is " +
                                    seconds + " s " + direction + " that of image " +
                                    std::to_string(next_ - 1) + "; it is played 33 ms later");
}

} // namespace KR
