#include "tool/progress.hpp"

#include <algorithm>
#include <cmath>
#include <string>

#include <unistd.h>

namespace KR::tool {

namespace {

constexpr std::chrono::seconds kFirstDraw{1};
constexpr std::chrono::milliseconds kDrawInterval{100};
constexpr std::uint64_t kBarLength = 24;
constexpr const char* kEraseLine = "\r\033[K";

std::string formatTime(double seconds) {
    const auto whole = std::llround(seconds);
    if (whole < 60) {
        return std::to_string(whole) + " s";
    }
    if (whole < 3600) {
        return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
    }
    return std::to_string(whole / 3600) + " h " + std::to_string(whole / 60 % 60) + " min";
}

} // namespace

Progress::Progress(std::uint64_t frames)
    : Progress(frames, ::isatty(STDERR_FILENO) == 1 ? stderr : nullptr, Clock::now) {}

Progress::Progress(std::uint64_t frames, std::FILE* terminal, std::function<Clock::time_point()> now)
    : terminal_(terminal), now_(std::move(now)), frames_(frames), start_(now_()),
      nextDraw_(start_ + kFirstDraw) {}

Progress::~Progress() {
    if (isDrawn_) {
        std::fputs(kEraseLine, terminal_);
        std::fflush(terminal_);
    }
}

void Progress::advance(std::uint64_t frames) {
    done_ += frames;
    if (terminal_ == nullptr) {
        return;
    }
    const Clock::time_point now = now_();
    if (now >= nextDraw_) {
        draw(now - start_);
        nextDraw_ = now + kDrawInterval;
        isDrawn_ = true;
    }
}

void Progress::draw(std::chrono::duration<double> elapsed) const {
    const double rate = static_cast<double>(done_) / elapsed.count();
    if (frames_ == 0) {
        std::fprintf(terminal_, "%s%llu frames, %.0f frames/s", kEraseLine,
                     static_cast<unsigned long long>(done_), rate);
    } else {
        const std::uint64_t done = std::min(done_, frames_);
        const auto filled = static_cast<std::size_t>(done * kBarLength / frames_);
        const std::string bar = std::string(filled, '#') + std::string(kBarLength - filled, '.');
        std::fprintf(terminal_, "%s[%s] %llu of %llu frames, %.0f frames/s, %s left", kEraseLine, bar.c_str(),
                     static_cast<unsigned long long>(done), static_cast<unsigned long long>(frames_), rate,
                     formatTime(static_cast<double>(frames_ - done) / rate).c_str());
    }
    std::fflush(terminal_);
}

} // namespace KR::tool
