#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>

namespace KR::tool {

/// A line on a terminal that shows how far a work on frames is: a bar, the frames done, how many a second, and the
/// time left. It appears after a second, is drawn anew ten times a second, and goes with the object. Reentrant.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// On standard error, if that is a terminal.
    /// \param frames  how many there are to do; 0: not known, the line has no bar and no time left then
    explicit Progress(std::uint64_t frames);
    /// On a file, terminal or not, with a clock that the caller moves.
    Progress(std::uint64_t frames, std::FILE* terminal, std::function<Clock::time_point()> now);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Call it after each frame.
    void advance(std::uint64_t frames = 1);

private:
    void draw(std::chrono::duration<double> elapsed) const;

    std::FILE* const terminal_; // null: nothing is shown
    const std::function<Clock::time_point()> now_;
    const std::uint64_t frames_;
    const Clock::time_point start_;
    Clock::time_point nextDraw_;
    std::uint64_t done_ = 0;
    bool isShown_ = false;
};

} // namespace KR::tool
