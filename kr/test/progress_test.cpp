#include "tool/progress.hpp"

#include "program.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using namespace std::chrono_literals;
using namespace KR::test;
using KR::tool::Progress;
using testing::EndsWith;
using testing::HasSubstr;

class ProgressLine : public testing::Test {
protected:
    void begin(std::uint64_t frames) {
        progress_.emplace(frames, terminal_.get(), [this] { return now_; });
    }
    void advance(Progress::Clock::duration time, std::uint64_t frames) {
        now_ += time;
        progress_->advance(frames);
    }
    void end() { progress_.reset(); }
    std::string shown() const { return detail::readFromStart(terminal_.get()); }

private:
    const detail::File terminal_ = detail::makeTemporaryFile();
    Progress::Clock::time_point now_;
    std::optional<Progress> progress_;
};

TEST_F(ProgressLine, IsNotShownInTheFirstSecond) {
    begin(100);
    advance(500ms, 50);
    advance(499ms, 50);
    end();
    EXPECT_EQ(shown(), "");
}

TEST_F(ProgressLine, ShowsFramesRateAndTheTimeLeftAfterASecond) {
    begin(1000);
    advance(2s, 250);
    EXPECT_EQ(shown(), "\r\033[K[######..................] 250 of 1000 frames, 125 frames/s, 6 s left");
    end();
}

TEST_F(ProgressLine, ShowsMinutesAndHours) {
    begin(1000);
    advance(2s, 10);
    EXPECT_THAT(shown(), EndsWith("5 frames/s, 3 min 18 s left"));
    begin(1000000);
    advance(2s, 10);
    EXPECT_THAT(shown(), EndsWith("5 frames/s, 55 h 33 min left"));
}

TEST_F(ProgressLine, WithUnknownLengthHasNoBar) {
    begin(0);
    advance(2s, 250);
    EXPECT_EQ(shown(), "\r\033[K250 frames, 125 frames/s");
}

TEST_F(ProgressLine, IsDrawnAtMostTenTimesPerSecond) {
    begin(1000);
    advance(2s, 250);
    const std::string once = shown();
    advance(50ms, 1);
    EXPECT_EQ(shown(), once);
    advance(50ms, 1);
    EXPECT_THAT(shown(), HasSubstr("252 of 1000"));
}

TEST_F(ProgressLine, IsErasedAtTheEnd) {
    begin(1000);
    advance(2s, 1000);
    end();
    EXPECT_THAT(shown(), EndsWith("\r\033[K"));
}

} // namespace
