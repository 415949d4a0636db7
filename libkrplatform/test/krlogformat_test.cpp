#include <krplatform/krlogformat.hpp>

#include <krplatform/krerror.hpp>

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

namespace KR::test {
namespace {

using testing::HasSubstr;

KRLogRecord makeRecord(KRLogLevel level, const std::string& message) {
    using namespace std::chrono;
    return {level,
            "some.where",
            message,
            KRSourceLocation::current(),
            "main",
            system_clock::time_point(duration_cast<system_clock::duration>(milliseconds(1'500'000'000'007)))};
}

std::vector<std::string> getMessages(const KRLogExcerpt& excerpt, const std::string& category) {
    std::vector<std::string> messages;
    for (const KRLogRecord& each : excerpt.records) {
        if (each.category == category) {
            messages.push_back(each.message);
        }
    }
    return messages;
}

TEST(KRLogFormat, EachFormIsAlwaysOneLine) {
    const KRLogRecord record = makeRecord(KRLogLevel::Warning, "a \"b\" \\ c\nd\x1b[2J\xff");
    EXPECT_EQ(formatLogRecord(record, KRLogFormat::Json),
              R"({"time":"2017-07-14T02:40:00.007Z","level":"warning","category":"some.where",)"
              R"("message":"a \"b\" \\ c\\nd\\x1B[2J\\xFF"})");
    EXPECT_EQ(formatLogRecord(record, KRLogFormat::Journal), "<4>some.where: a \"b\" \\ c\\nd\\x1B[2J\\xFF");
    EXPECT_THAT(formatLogRecord(record, KRLogFormat::Text),
                testing::AllOf(testing::StartsWith("[2017-07-1"),
                               testing::EndsWith(".007] warning some.where: a \"b\" \\ c\\nd\\x1B[2J\\xFF")));
    EXPECT_EQ(formatLogRecord(makeRecord(KRLogLevel::Error, ""), KRLogFormat::Journal)[1], '3');
    EXPECT_EQ(formatLogRecord(makeRecord(KRLogLevel::Info, ""), KRLogFormat::Journal)[1], '6');
    EXPECT_EQ(formatLogRecord(makeRecord(KRLogLevel::Verbose, ""), KRLogFormat::Journal)[1], '7');
}

TEST(KRLogFormat, ItsNamesAreParsed) {
    for (const KRLogFormat format : {KRLogFormat::Text, KRLogFormat::Json, KRLogFormat::Journal}) {
        EXPECT_EQ(parseLogFormat(getLogFormatName(format)), format);
    }
    EXPECT_THROW(parseLogFormat("xml"), std::invalid_argument);
}

TEST(KRLogRecords, AreThoseSinceAnEarlierQuery) {
    const std::string before = getLogRecords("").now;
    logInfo("records.test", "first");
    logVerbose("records.test", "not printed");
    ASSERT_TRUE(flushLog());
    const KRLogExcerpt first = getLogRecords(before);
    EXPECT_THAT(getMessages(first, "records.test"), testing::ElementsAre("first"));
    logWarning("records.test", "second");
    ASSERT_TRUE(flushLog());
    const KRLogExcerpt second = getLogRecords(first.now);
    EXPECT_THAT(getMessages(second, "records.test"), testing::ElementsAre("second"));
    EXPECT_EQ(second.lost, 0U);
    EXPECT_THAT(getMessages(getLogRecords("1.2:3"), "records.test"), testing::ElementsAre("first", "second"))
        << "another process";
    EXPECT_THAT(getMessages(getLogRecords(first.now + "000"), "records.test"),
                testing::ElementsAre("first", "second"))
        << "a query that never was";
}

TEST(KRLogRecords, TheOldestOfTooManyAreLostAndCounted) {
    const std::string before = getLogRecords("").now;
    constexpr int kRecords = 2000;
    for (int i = 0; i < kRecords; ++i) {
        logInfo("records.flood", std::to_string(i) + std::string(500, '.'));
        if (i % 100 == 0) {
            ASSERT_TRUE(flushLog()); // the queue is bounded, too
        }
    }
    ASSERT_TRUE(flushLog());
    const KRLogExcerpt all = getLogRecords(before);
    EXPECT_GT(all.records.size(), 100U);
    EXPECT_LT(all.records.size(), 500U) << "256 KiB";
    EXPECT_GE(all.lost + all.records.size(), static_cast<std::uint64_t>(kRecords));
    EXPECT_THAT(all.records.back().message, testing::StartsWith(std::to_string(kRecords - 1) + "."));
}

TEST(KRLogRecords, EveryModuleReturnsThem) {
    const auto broker = KRBroker::create("local:");
    const auto memory = broker->getProxy("KRMemory");
    logError("records.module", "it \n is broken");
    ASSERT_TRUE(flushLog());
    const auto parts = memory->call<std::vector<KRValue>>("getLogRecords", "");
    ASSERT_EQ(parts.size(), 3U);
    EXPECT_EQ(parts[1].to<int>(), 0);
    const auto last = parts[2].to<std::vector<KRValue>>().back().to<std::vector<KRValue>>();
    ASSERT_EQ(last.size(), 6U);
    EXPECT_EQ(last[0].to<int>(), static_cast<int>(KRLogLevel::Error));
    EXPECT_EQ(last[1].to<std::string>(), "records.module");
    EXPECT_EQ(last[2].to<std::string>(), "it \n is broken");
    EXPECT_GT(last[4].to<int>(), 1'700'000'000);
    EXPECT_THROW(memory->call<KRValue>("getLogRecords", 3), KRError);
}

} // namespace
} // namespace KR::test
