#include "krplatform/krlog.hpp"

#include "krplatform/krlogformat.hpp"
#include "krplatform/krthread.hpp"

#include "patience.hpp"
#include "recordedlog.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace KR {
namespace {

using test::Event;
using test::RecordedLog;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

/// Captures what the function writes to standard error.
template <class Function>
std::string standardErrorOf(Function function) {
    testing::internal::CaptureStderr();
    function();
    flushLog();
    return testing::internal::GetCapturedStderr();
}

TEST(KRLog, ARecordHasLevelCategoryMessageLocationThreadAndTime) {
    std::optional<KRLogRecord> heard;
    const KRLogListener listener([&](const KRLogRecord& record) { heard = record; });
    const auto before = std::chrono::system_clock::now();
    std::thread thread([] {
        setThreadName("a thread whose name is long");
        logWarning("core.extractor", "something");
    });
    thread.join();
    EXPECT_TRUE(flushLog());
    ASSERT_TRUE(heard);
    EXPECT_EQ(heard->level, KRLogLevel::Warning);
    EXPECT_EQ(heard->category, "core.extractor");
    EXPECT_EQ(heard->message, "something");
    EXPECT_THAT(heard->location.file, EndsWith("krlog_test.cpp"));
    EXPECT_GT(heard->location.line, 0u);
    EXPECT_EQ(heard->thread, "a thread whose name is long");
    EXPECT_GE(heard->time, before);
    EXPECT_LE(heard->time, std::chrono::system_clock::now());
}

TEST(KRLog, EachLevelHasItsFunction) {
    std::vector<KRLogLevel> levels;
    const KRLogListener listener([&](const KRLogRecord& record) { levels.push_back(record.level); });
    logError("c", "m");
    logWarning("c", "m");
    logInfo("c", "m");
    logVerbose("c", "m");
    EXPECT_TRUE(flushLog());
    EXPECT_THAT(levels, testing::ElementsAre(KRLogLevel::Error, KRLogLevel::Warning, KRLogLevel::Info,
                                             KRLogLevel::Verbose));
}

TEST(KRLog, ATrailingLineEndIsNotPartOfTheRecord) {
    const RecordedLog recorded;
    logError("KRImage", "cannot convert\n");
    logError("KRImage", "first\nsecond\r\n");
    EXPECT_EQ(recorded.find(KRLogLevel::Error, "cannot").at(0).message, "cannot convert");
    EXPECT_EQ(recorded.find(KRLogLevel::Error, "first").at(0).message, "first\nsecond");
}

TEST(KRLog, StandardErrorGetsOneLinePerRecord) {
    const std::string text = standardErrorOf([] { logError("KRImage", "one\nline\n"); });
    EXPECT_THAT(text, HasSubstr("error KRImage: one\\nline"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(KRLog, StandardErrorShowsTheChosenLevelAndMoreSevereOnes) {
    EXPECT_THAT(standardErrorOf([] { logInfo("c", "first"); }), Not(IsEmpty()));
    EXPECT_THAT(standardErrorOf([] { logVerbose("c", "second"); }), IsEmpty());
    setLogLevel(KRLogLevel::Warning);
    EXPECT_THAT(standardErrorOf([] { logInfo("c", "third"); }), IsEmpty());
    EXPECT_THAT(standardErrorOf([] { logWarning("c", "fourth"); }), Not(IsEmpty()));
    setLogLevel(KRLogLevel::Verbose);
    EXPECT_THAT(standardErrorOf([] { logVerbose("c", "fifth"); }), Not(IsEmpty()));
    setLogLevel(KRLogLevel::Info);
}

TEST(KRLog, ALineBeginsWithDateAndTime) {
    EXPECT_THAT(standardErrorOf([] { logError("c", "dated"); }),
                testing::ContainsRegex("^.20[0-9][0-9]-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]."
                                       "[0-9][0-9][0-9]. error c: dated"));
}

TEST(KRLog, ACategoryAndItsSubcategoriesMayHaveALevel) {
    setLogLevels("warning,krdds=debug,krdds.link=error");
    EXPECT_EQ(getLogLevels(), "warning,krdds=verbose,krdds.link=error");
    EXPECT_THAT(standardErrorOf([] { logInfo("c", "a"); }), IsEmpty());
    EXPECT_THAT(standardErrorOf([] { logVerbose("krdds", "b"); }), Not(IsEmpty()));
    EXPECT_THAT(standardErrorOf([] { logVerbose("krdds.call", "c"); }), Not(IsEmpty()));
    EXPECT_THAT(standardErrorOf([] { logWarning("krdds.link", "d"); }), IsEmpty());
    EXPECT_THAT(standardErrorOf([] { logInfo("krddsother", "e"); }), IsEmpty());
    setLogLevels("verbose");
    EXPECT_THAT(standardErrorOf([] { logVerbose("krdds.link", "f"); }), Not(IsEmpty()))
        << "a level alone applies to all categories";
    setLogLevels("info");
    EXPECT_EQ(getLogLevels(), "info");
}

TEST(KRLog, AnInvalidLevelIsRefusedAndChangesNothing) {
    const std::string before = getLogLevels();
    const auto refusalOf = [](const std::string& levels) -> std::string {
        try {
            setLogLevels(levels);
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_THAT(refusalOf("loud"),
                HasSubstr("\"loud\" is not a level of the log; levels are error, warning"));
    EXPECT_THAT(refusalOf("warning,krdds"), HasSubstr("\"krdds\" is not a level"));
    EXPECT_THAT(refusalOf(""), HasSubstr("\"\" is not a level"));
    EXPECT_THAT(refusalOf("=info"), HasSubstr("does not name a category"));
    EXPECT_THAT(refusalOf(std::string(101, 'c') + "=info"), HasSubstr("does not name a category"));
    std::string many = "info";
    for (int i = 0; i < 101; ++i) {
        many += ",c" + std::to_string(i) + "=error";
    }
    EXPECT_THAT(refusalOf(many), HasSubstr("100 categories"));
    EXPECT_EQ(getLogLevels(), before);
}

TEST(KRLog, LevelsAreCheckedWithoutBeingSet) {
    const std::string before = getLogLevels();
    checkLogLevels("error,krdds=verbose");
    EXPECT_THROW(checkLogLevels("error,krdds=loud"), std::invalid_argument);
    EXPECT_EQ(getLogLevels(), before);
}

TEST(KRLog, AMessageThatLooksLikeAFormatIsPrintedVerbatim) {
    EXPECT_THAT(standardErrorOf([] { logError("{}", "{0} %s {"); }), HasSubstr("error {}: {0} %s {"));
}

TEST(KRLogListener, HearsRecordsThatStandardErrorDoesNotShow) {
    const RecordedLog recorded;
    logVerbose("c", "quiet");
    EXPECT_THAT(recorded.find(KRLogLevel::Verbose, "quiet"), SizeIs(1));
}

TEST(KRLogListener, HearsNothingAfterItsDestruction) {
    int first = 0;
    int second = 0;
    const KRLogListener stays([&](const KRLogRecord&) { ++first; });
    {
        const KRLogListener goes([&](const KRLogRecord&) { ++second; });
        logVerbose("c", "both");
        EXPECT_TRUE(flushLog());
    }
    logVerbose("c", "one");
    EXPECT_TRUE(flushLog());
    EXPECT_EQ(first, 2);
    EXPECT_EQ(second, 1);
}

TEST(KRLogListener, DoesNotHearWhatItLogsItself) {
    int heard = 0;
    const KRLogListener listener([&](const KRLogRecord&) {
        ++heard;
        logVerbose("c", "answer");
    });
    logVerbose("c", "question");
    EXPECT_TRUE(flushLog());
    EXPECT_TRUE(flushLog()); // including the answer
    EXPECT_EQ(heard, 1);
}

TEST(KRLogListener, TwoThatLogDoNotAnswerEachOtherForever) {
    std::vector<std::string> heardByFirst;
    std::vector<std::string> heardBySecond;
    const KRLogListener first([&](const KRLogRecord& record) {
        heardByFirst.push_back(record.message);
        if (heardByFirst.size() < 100) {
            logVerbose("c", "first's");
        }
    });
    const KRLogListener second([&](const KRLogRecord& record) {
        heardBySecond.push_back(record.message);
        if (heardBySecond.size() < 100) {
            logVerbose("c", "second's");
        }
    });
    logVerbose("c", "start");
    for (int answers = 0; answers < 3; ++answers) {
        EXPECT_TRUE(flushLog());
    }
    EXPECT_THAT(heardByFirst, testing::ElementsAre("start", "second's"));
    EXPECT_THAT(heardBySecond, testing::ElementsAre("start", "first's"));
}

TEST(KRLogListener, MayBeDestroyedFromWithinItsFunction) {
    std::unique_ptr<KRLogListener> listener;
    int heard = 0;
    listener = std::make_unique<KRLogListener>([&](const KRLogRecord&) {
        ++heard;
        listener.reset();
    });
    logVerbose("c", "one");
    logVerbose("c", "two");
    EXPECT_TRUE(flushLog());
    EXPECT_EQ(heard, 1);
}

TEST(KRLogListener, MayBeDestroyedFromWithinAnother) {
    std::unique_ptr<KRLogListener> other;
    const KRLogListener listener([&](const KRLogRecord&) { other.reset(); });
    other = std::make_unique<KRLogListener>([](const KRLogRecord&) { ADD_FAILURE(); });
    logVerbose("c", "start");
    EXPECT_TRUE(flushLog());
    EXPECT_FALSE(other);
}

TEST(KRLogListener, HearsOnlyWhatWasLoggedWhileItExisted) {
    Event entered;
    Event release;
    const KRLogListener slow([&](const KRLogRecord&) {
        entered.set();
        EXPECT_TRUE(release.wait());
    });
    const test::SetAtEnd end(release);
    logVerbose("c", "handled");
    EXPECT_TRUE(entered.wait());
    logVerbose("c", "before");
    const RecordedLog late;
    logVerbose("c", "after");
    release.set();
    EXPECT_THAT(late.find(KRLogLevel::Verbose, ""),
                testing::ElementsAre(testing::Field(&KRLogRecord::message, "after")));
}

TEST(KRLogListener, ItsDestructorWaitsForTheFunctionOnAnotherThread) {
    Event entered;
    std::atomic<bool> finished = false;
    auto listener = std::make_unique<KRLogListener>([&](const KRLogRecord&) {
        entered.set();
        std::this_thread::yield();
        finished = true;
    });
    std::thread logging([] { logVerbose("c", "m"); });
    EXPECT_TRUE(entered.wait());
    listener.reset();
    EXPECT_TRUE(finished);
    logging.join();
}

TEST(KRLogListener, HoldsNoLockThatOtherThreadsNeedToLog) {
    std::atomic<int> heard = 0;
    const KRLogListener listener([&](const KRLogRecord& record) {
        ++heard;
        if (record.message == "outer") {
            std::thread([] { logVerbose("c", "from another thread"); }).join();
        }
    });
    logVerbose("c", "outer");
    EXPECT_TRUE(flushLog());
    EXPECT_TRUE(flushLog()); // the other thread's
    EXPECT_EQ(heard, 2);
}

TEST(KRLogListener, RunsWithoutTheLocksOfTheLoggingThread) {
    std::mutex mutex;
    bool heard = false; // guarded by mutex
    const KRLogListener listener([&](const KRLogRecord&) {
        const std::lock_guard lock(mutex);
        heard = true;
    });
    {
        const std::lock_guard lock(mutex);
        logVerbose("c", "logged with the lock held");
    }
    EXPECT_TRUE(flushLog());
    EXPECT_TRUE(heard);
}

TEST(KRLogListener, MayThrowWithoutHarmingTheLoggingThread) {
    int heard = 0;
    const KRLogListener throwing([](const KRLogRecord&) { throw std::runtime_error("listener"); });
    const KRLogListener counting([&](const KRLogRecord&) { ++heard; });
    logInfo("test", "a line");
    EXPECT_TRUE(flushLog());
    EXPECT_EQ(heard, 1);
}

TEST(KRLogListener, MayBeCreatedAndDestroyedWhileOthersLog) {
    std::atomic<bool> done = false;
    std::vector<std::thread> loggers;
    for (int i = 0; i < 3; ++i) {
        loggers.emplace_back([&] {
            while (!done) {
                logVerbose("c", "m");
            }
        });
    }
    for (int round = 0; round < 300; ++round) {
        auto alive = std::make_unique<std::atomic<bool>>(true); // ASan detects use after destruction
        Event heard;
        const KRLogListener listener([&](const KRLogRecord&) {
            EXPECT_TRUE(*alive);
            heard.set();
        });
        EXPECT_TRUE(heard.wait());
    }
    done = true;
    for (std::thread& logger : loggers) {
        logger.join();
    }
}

} // namespace
} // namespace KR
