// Output on standard error, and behaviour if it is not read.

#include "krplatform/krlog.hpp"

#include "patience.hpp"
#include "recordedlog.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace KR {
namespace {

using test::Event;
using test::eventually;
using test::RecordedLog;
using testing::HasSubstr;
using testing::Not;

/// Standard error goes into a pipe while this exists.
class PipedStandardError {
public:
    PipedStandardError() {
        flushLog();
        if (::pipe(pipe_.data()) != 0) {
            throw std::runtime_error("no pipe");
        }
        ::dup2(pipe_[1], STDERR_FILENO);
        ::close(pipe_[1]);
    }
    ~PipedStandardError() {
        ::dup2(before_, STDERR_FILENO);
        ::close(before_);
        closeReader();
        if (reader_.joinable()) {
            reader_.join();
        }
    }
    PipedStandardError(const PipedStandardError&) = delete;
    PipedStandardError& operator=(const PipedStandardError&) = delete;

    /// Starts reading.
    void read() {
        reader_ = std::thread([this, end = std::exchange(pipe_[0], -1)] {
            std::array<char, 4096> bytes{};
            for (;;) {
                const ssize_t count = ::read(end, bytes.data(), bytes.size());
                if (count <= 0) {
                    break;
                }
                const std::lock_guard lock(mutex_);
                text_.append(bytes.data(), static_cast<std::size_t>(count));
            }
            ::close(end);
        });
    }
    void closeReader() {
        if (pipe_[0] >= 0) {
            ::close(std::exchange(pipe_[0], -1));
        }
    }
    std::string getText() const {
        const std::lock_guard lock(mutex_);
        return text_;
    }
    [[nodiscard]] bool waitFor(const std::string& text) const {
        return eventually([&] { return getText().find(text) != std::string::npos; });
    }

private:
    const int before_ = ::dup(STDERR_FILENO);
    std::array<int, 2> pipe_{};
    mutable std::mutex mutex_;
    std::string text_; // guarded by mutex_
    std::thread reader_;
};

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

/// The sum of N in "said N time(s) more".
std::size_t countRepetitions(const std::string& text) {
    const std::string said = "said ";
    std::size_t sum = 0;
    for (auto at = text.find(said); at != std::string::npos; at = text.find(said, at + 1)) {
        unsigned long times = 0;
        sum += std::sscanf(text.c_str() + at, "said %lu time", &times) == 1 ? times : 0;
    }
    return sum;
}

TEST(KRLogConsole, EscapesControlCharactersInMessages) {
    PipedStandardError error;
    error.read();
    logError("cat\x1b[2J", "a module named \x1b]0;title\x07 \xC2\x9B\xFF");
    EXPECT_TRUE(error.waitFor("error cat\\x1B[2J: a module named \\x1B]0;title\\x07 \\xC2\\x9B\\xFF\n"));
}

TEST(KRLogConsole, TruncatesAVeryLongLine) {
    const RecordedLog recorded;
    PipedStandardError error;
    error.read();
    logError("c", "long " + std::string(1'000'000, 'x'));
    logError("c", "the next one");
    EXPECT_TRUE(error.waitFor("the next one"));
    EXPECT_LT(error.getText().size(), 10'000U);
    EXPECT_THAT(error.getText(), HasSubstr("x...\n"));
    EXPECT_EQ(recorded.find(KRLogLevel::Error, "long").at(0).message.size(), 64U << 10);
}

TEST(KRLogConsole, ARepeatedLineIsPrintedOnceAndThenCountedAtGrowingIntervals) {
    const RecordedLog recorded;
    PipedStandardError error;
    error.read();
    std::size_t logged = 0;
    const auto reports = [&] { return countOf(error.getText(), "more)"); };
    EXPECT_TRUE(eventually([&] { // every 1 ms
        logError("KRVisionExtractor", "Motion: Could not retrieve image");
        ++logged;
        return reports() >= 2;
    }));
    EXPECT_EQ(recorded.find(KRLogLevel::Error, "Could not retrieve").size(), logged) << "listeners hear each";
    EXPECT_EQ(countOf(error.getText(), "Could not retrieve image\n"), 1U);
    EXPECT_GT(countRepetitions(error.getText()), 2U);
    EXPECT_LT(countRepetitions(error.getText()), logged);
}

TEST(KRLogConsole, LinesOfAnotherLevelCategoryOrTextAreNotRepetitions) {
    PipedStandardError error;
    error.read();
    logError("console.a", "one");
    logWarning("console.a", "one");
    logError("console.b", "one");
    logError("console.a", "two");
    EXPECT_TRUE(error.waitFor("console.a: two"));
    EXPECT_EQ(countOf(error.getText(), "\n"), 4U);
}

TEST(KRLogConsole, AnUnreadStandardErrorBlocksNobodyAndTheLossIsReported) {
    std::atomic<int> heard = 0;
    PipedStandardError error;
    const KRLogListener listener(
        [&](const KRLogRecord& record) { heard += record.category == "stuck" ? 1 : 0; });
    constexpr int kRecords = 20'000;
    const std::string padding(200, '.');
    for (int i = 0; i < kRecords; ++i) { // four times the size of the queue
        logError("stuck", std::to_string(i) + padding);
        if (i % 1000 == 999) {
            EXPECT_TRUE(eventually([&] { return heard == i + 1; })) << "listeners still hear them";
        }
    }
    error.read();
    EXPECT_TRUE(error.waitFor("lines lost: standard error did not take them\n"));
    const std::string text = error.getText();
    const std::string report = "krplatform.log: ";
    ASSERT_THAT(text, HasSubstr(report));
    const std::size_t lost = std::stoul(text.substr(text.find(report) + report.size()));
    EXPECT_EQ(countOf(text, "error stuck: ") + lost, static_cast<std::size_t>(kRecords));
    logError("stuck", "it goes on");
    EXPECT_TRUE(error.waitFor("it goes on"));
}

TEST(KRLogConsole, AStandardErrorWhoseReaderClosedHarmsNobody) {
    const RecordedLog recorded;
    {
        PipedStandardError error;
        error.closeReader();
        logError("c", "into the void");
        EXPECT_TRUE(flushLog());
    }
    PipedStandardError error;
    error.read();
    logError("c", "back again");
    EXPECT_TRUE(error.waitFor("back again"));
    EXPECT_EQ(recorded.find(KRLogLevel::Error, "into the void").size(), 1U);
}

TEST(KRLog, RecordsLostByASlowListenerAreCountedAndReported) {
    setLogLevel(KRLogLevel::Error);
    std::size_t heard = 0; // on the log thread
    Event release;
    const KRLogListener slow([&](const KRLogRecord& record) {
        EXPECT_TRUE(release.wait());
        heard += record.category == "flood" ? 1 : 0;
    });
    constexpr std::size_t kRecords = 10'000;
    const std::string text(1000, '.');
    for (std::size_t i = 0; i < kRecords; ++i) {
        logVerbose("flood", text);
    }
    const RecordedLog recorded;
    release.set();
    const auto report = recorded.waitFor(KRLogLevel::Warning, " records lost: they came faster");
    setLogLevel(KRLogLevel::Info);
    ASSERT_TRUE(report);
    EXPECT_TRUE(flushLog());
    EXPECT_LT(heard, 5000U) << "4 MiB wait at most";
    EXPECT_EQ(heard + std::stoul(report->message), kRecords);
}

// ---- the end of a process

class KRLogAtTheEnd : public testing::Test {
protected:
    KRLogAtTheEnd() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

using KRLogAtTheEndDeathTest = KRLogAtTheEnd;

TEST_F(KRLogAtTheEndDeathTest, ExitWritesQueuedLinesAndCounts) {
    EXPECT_EXIT(
        {
            for (int i = 0; i < 5; ++i) {
                logError("end", "again");
            }
            logError("end", "last words");
            std::exit(0);
        },
        testing::ExitedWithCode(0), "last words(.|\n)*again \\(said 4 times more\\)");
}

void exitWithAStuckStandardError() {
    std::array<int, 2> pipe{};
    if (::pipe(pipe.data()) != 0) {
        std::abort();
    }
    ::dup2(pipe[1], STDERR_FILENO);
    for (int i = 0; i < 2000; ++i) {
        logError("end", std::to_string(i) + std::string(100, '.'));
    }
    std::exit(7);
}

TEST_F(KRLogAtTheEndDeathTest, ExitDoesNotWaitForAnUnreadStandardError) {
    EXPECT_EXIT(exitWithAStuckStandardError(), testing::ExitedWithCode(7), "");
}

struct LogsWhenDestroyed {
    ~LogsWhenDestroyed() { logError("end", "from a static destructor"); }
};

TEST_F(KRLogAtTheEndDeathTest, LinesOfStaticDestructorsAreWritten) {
    EXPECT_EXIT(
        {
            static const LogsWhenDestroyed first; // destroyed after the log's own end
            logError("end", "start");
            std::exit(0);
        },
        testing::ExitedWithCode(0), "from a static destructor");
}

TEST_F(KRLogAtTheEndDeathTest, TerminateWritesQueuedLines) {
    EXPECT_DEATH(
        {
            logError("end", "last words");
            std::terminate();
        },
        "last words");
}

TEST_F(KRLogAtTheEndDeathTest, TerminateOnTheLogThreadWritesQueuedLines) {
    EXPECT_DEATH(
        {
            const KRLogListener listener([](const KRLogRecord&) {
                logError("end", "last words");
                std::terminate();
            });
            logError("end", "start");
            flushLog();
        },
        "last words");
}

// ThreadSanitizer does not support threads in a process forked by one that has several.
#ifndef __SANITIZE_THREAD__
TEST(KRLog, AForkedProcessLogsOnItsOwn) {
    PipedStandardError error;
    error.read();
    std::atomic<bool> done = false;
    std::thread busy([&] {
        while (!done) {
            logVerbose("c", "from the parent");
        }
    });
    const RecordedLog recorded; // so that the parent's log is busy too
    for (int round = 0; round < 20; ++round) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            logError("fork", "from the child of round " + std::to_string(round) + ".");
            ::_exit(flushLog() ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(error.waitFor("from the child of round " + std::to_string(round) + "."));
    }
    done = true;
    busy.join();
}
#endif

} // namespace
} // namespace KR
