#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>

namespace KR::tool {

/// A progress line on a terminal: a bar, the frames done, the rate and the time left. It appears after a second, is
/// redrawn ten times a second, and disappears with the object. Reentrant.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// On standard error, if that is a terminal.
    /// \param frames  how many there are; 0: not known, so the line has no bar and no time left
    explicit Progress(std::uint64_t frames);
    /// Draws on a file, terminal or not, by the clock of the caller.
    Progress(std::uint64_t frames, std::FILE* terminal, std::function<Clock::time_point()> now);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Call it after each frame.
    void advance(std::uint64_t frames = 1);

private:
    void draw(std::chrono::duration<double> elapsed) const;

    std::FILE* const terminal_; // null: nothing is drawn
    const std::function<Clock::time_point()> now_;
    const std::uint64_t frames_;
    const Clock::time_point start_;
    Clock::time_point nextDraw_;
    std::uint64_t done_ = 0;
    bool isDrawn_ = false;
};

} // namespace KR::tool
