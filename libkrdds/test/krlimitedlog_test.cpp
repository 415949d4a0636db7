#include "krlimitedlog.hpp"

#include <patience.hpp>
#include <recordedlog.hpp>

#include <gtest/gtest.h>

namespace KR::test {

namespace {

TEST(KRLimitedLog, CountsTheLinesThatItLeavesOut) {
    const RecordedLog log;
    KRLimitedLog limited("test", "floods", std::chrono::milliseconds(200));
    const std::uint64_t lines = KRLimitedLog::kLines + 7;
    for (std::uint64_t i = 0; i < lines; ++i) {
        limited.write(KRLogLevel::Warning, "line " + std::to_string(i));
    }
    std::size_t counted = 0;
    EXPECT_TRUE(eventually([&] { // on a busy machine in several intervals
        limited.flush();
        counted = 0;
        for (const auto& record : log.find(KRLogLevel::Warning, " more lines about floods were left out")) {
            counted += std::stoul(record.message);
        }
        return counted + log.find(KRLogLevel::Warning, "line ").size() == lines;
    }));
    EXPECT_GT(counted, 0U);
}

} // namespace

} // namespace KR::test
