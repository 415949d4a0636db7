// KRMotion finds the same in a recording as before: kr evaluate against the results in square.jsonl.

#include "program.hpp"
#include "temporaryfolder.hpp"

#include <krvision/krimage.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using KR::test::kr;
using KR::test::Outcome;

/// Records a bright square of 40x40 pixels moving over grey, which rests for five images and moves on.
std::string recordSquare(const KR::test::TemporaryFolder& folder, int stepsBack = 0) {
    constexpr int kImages = 30;
    const std::string path = folder.path("square.oxv");
    KR::KRImage image(KR::kQVGA, KR::kYUV422ColorSpace, false, 0.5F, 0.4F, -0.5F, -0.4F);
    KR::KROxvWriter writer(path, {{320, 240, KR::kYUV422ColorSpace, 8}});
    for (int i = 0; i < kImages; ++i) {
        const int step = i < 10 ? i : i < 15 ? 10 : i - 5 - stepsBack;
        const int left = 8 * step;
        const int top = 6 * step;
        for (int y = 0; y < image.height; ++y) {
            for (int x = 0; x < image.width; ++x) {
                const bool isInside = x >= left && x < left + 40 && y >= top && y < top + 40;
                unsigned char* const pixel = image.data.get() + (y * image.width + x) * 2;
                pixel[0] = isInside ? 200 : 80;
                pixel[1] = 128;
            }
        }
        image.timeStamp = 1'500'000'000'000'000 + i * 33'333LL;
        writer.write({&image});
    }
    writer.close();
    return path;
}

TEST(KRMotion, FindsTheSameInARecordingAsBefore) {
    const KR::test::TemporaryFolder folder;
    const Outcome outcome = kr({"evaluate", KR_MOTION_LIBRARY, recordSquare(folder), "--subscribe", "33,0.5",
                                "--against", KR_MOTION_RESULTS, "--tolerance", "0.0001"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.out << outcome.err;
}

TEST(KRMotion, FindsSomethingElseInAnotherRecording) {
    const KR::test::TemporaryFolder folder;
    const Outcome outcome = kr({"evaluate", KR_MOTION_LIBRARY, recordSquare(folder, 1), "--subscribe",
                                "33,0.5", "--against", KR_MOTION_RESULTS, "--tolerance", "0.0001"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.out, testing::HasSubstr("frame 15, "));
}

} // namespace
