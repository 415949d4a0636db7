#include "krvision/krvideo.hpp"

#include "krplatform/krerror.hpp"
#include "krvision/krvisiondefinitions.hpp"
#include "oxvfile.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace KR::test;
using KR::KRImage;
using KR::KRVideo;
using KR::streamHeader;

constexpr std::size_t kChunk = 160 * 120;

class KRVideoReading : public testing::Test {
protected:
    std::string path(const std::string& name = "video.oxv") const { return folder_.path(name); }

    // A file of streams of 160x120 bytes each.
    void write(unsigned frames, unsigned streams = 1, std::uint32_t version = kOxvVersion1,
               std::uint32_t extra = 0) const {
        Bytes file = makeOxvHeader(version, extra, frames, streams,
                                   std::vector<streamHeader>(streams, streamHeader{160, 120, kLuma, 8}));
        file.resize(file.size() + extra, 0xEE);
        for (unsigned frame = 0; frame < frames; ++frame) {
            for (unsigned stream = 0; stream < streams; ++stream) {
                appendChunk(file, frame, stream, kChunk);
            }
        }
        writeAll(path(), file);
    }
    bool open(KRVideo& video, const Bytes& file) const {
        writeAll(path(), file);
        return video.readVideo(path());
    }
    // The description of the error; checks its other fields.
    std::string errorOf(const Bytes& file) const {
        KRVideo video;
        try {
            open(video, file);
        } catch (const KR::KRError& error) {
            EXPECT_EQ(error.getModule(), "KRVideo");
            EXPECT_EQ(error.getMethod(), "readVideo");
            EXPECT_FALSE(video.goToFrame(0, 0));
            return error.getDescription();
        }
        return "no error";
    }
    std::string errorOfStream(streamHeader stream) const {
        return errorOf(makeOxvHeader(kOxvVersion1, 0, 1, 1, {stream}));
    }

private:
    const TemporaryFolder folder_;
};

// ---- opening

TEST_F(KRVideoReading, AFileThatIsMissingIsAnError) {
    KRVideo video;
    try {
        video.readVideo("/missing/video.oxv");
        FAIL() << "no error";
    } catch (const KR::KRError& error) {
        EXPECT_EQ(error.getModule(), "KRVideo");
        EXPECT_EQ(error.getMethod(), "readVideo");
        EXPECT_EQ(error.getDescription(), "Can't open file /missing/video.oxv. Check its path and presence");
    }
}

TEST_F(KRVideoReading, BothVersionsAreAcceptedAndNoOther) {
    const std::vector<streamHeader> streams = {{160, 120, kLuma, 8}};
    for (const char* magic : {"0VXO", "1VXO"}) {
        std::uint32_t version = 0;
        std::memcpy(&version, magic, 4);
        EXPECT_EQ(errorOf(makeOxvHeader(version, 0, 1, 1, streams)), "no error");
    }
    for (const std::uint32_t version : {kOxvVersion0 - 1, kOxvVersion1 + 1, 0u, 0x4F584931u, 0x3156584Fu}) {
        EXPECT_EQ(errorOf(makeOxvHeader(version, 0, 1, 1, streams)), "This oxv file version isn't supported");
    }
    EXPECT_EQ(errorOf(Bytes{}), "This oxv file version isn't supported");
    EXPECT_THROW(KRVideo().readVideo(path("")), KR::KRError); // a folder
}

TEST_F(KRVideoReading, ThreeResolutionsAreAcceptedAndNoOther) {
    EXPECT_EQ(errorOfStream({160, 120, kLuma, 8}), "no error");
    EXPECT_EQ(errorOfStream({320, 240, kLuma, 8}), "no error");
    EXPECT_EQ(errorOfStream({640, 480, kLuma, 8}), "no error");
    EXPECT_EQ(errorOfStream({320, 120, kLuma, 8}), "Unsupported resolution");
    EXPECT_EQ(errorOfStream({120, 160, kLuma, 8}), "Unsupported resolution");
    EXPECT_EQ(errorOfStream({0, 0, kLuma, 8}), "Unsupported resolution");
    for (int resolution = 3; resolution < 18; ++resolution) {
        int width = 0, height = 0;
        KR::setSizeFromResolution(resolution, width, height);
        EXPECT_EQ(
            errorOfStream({static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), kLuma, 8}),
            "Unsupported resolution");
    }
    EXPECT_EQ(errorOfStream({0xFFFFFFFF, 0xFFFFFFFF, kLuma, 8}), "Unsupported resolution");
}

TEST_F(KRVideoReading, ColorSpaces0To16AreAcceptedAndNoOther) {
    for (std::uint32_t colorSpace = 0; colorSpace <= 16; ++colorSpace) {
        EXPECT_EQ(errorOfStream({160, 120, colorSpace, 8}), "no error") << colorSpace;
    }
    for (const std::uint32_t colorSpace : {17u, 26u, 27u, 0xFFFFFFFFu, 0x80000000u}) {
        EXPECT_EQ(errorOfStream({160, 120, colorSpace, 8}), "invalid color space") << colorSpace;
    }
}

TEST_F(KRVideoReading, TheFirstWrongStreamIsReported) {
    EXPECT_EQ(errorOf(makeOxvHeader(kOxvVersion1, 0, 1, 2, {{160, 120, 17, 8}, {1, 1, 0, 8}})),
              "invalid color space");
    EXPECT_EQ(errorOf(makeOxvHeader(kOxvVersion1, 0, 1, 2, {{160, 120, 16, 8}, {1, 1, 17, 8}})),
              "Unsupported resolution");
}

TEST_F(KRVideoReading, StreamsHaveTheirPropertiesAndAFrameAllTheirChunks) {
    KRVideo video;
    ASSERT_TRUE(open(video, makeOxvHeader(kOxvVersion1, 0, 5, 3,
                                          {{640, 480, kYuv422, 8}, {320, 240, 13, 8}, {160, 120, 0, 4}})));
    EXPECT_EQ(video.getFrameCount(), 5u);
    const auto& streams = video.getStreams();
    ASSERT_EQ(streams.size(), 3u);
    EXPECT_EQ(streams[0].width, 640u);
    EXPECT_EQ(streams[0].height, 480u);
    EXPECT_EQ(streams[0].resolution, 2u);
    EXPECT_EQ(streams[0].colorSpace, 9u);
    EXPECT_EQ(streams[0].nbLayers, 2u);
    EXPECT_EQ(streams[0].depth, 8u);
    EXPECT_EQ(streams[0].chunkSize, 614400u);
    EXPECT_EQ(streams[1].resolution, 1u);
    EXPECT_EQ(streams[1].nbLayers, 3u);
    EXPECT_EQ(streams[1].chunkSize, 230400u);
    EXPECT_EQ(streams[2].resolution, 0u);
    EXPECT_EQ(streams[2].chunkSize, 9600u);
}

TEST_F(KRVideoReading, TwoStreamsOf614400BytesMakeFramesOf1228800) {
    KRVideo video;
    Bytes file = makeOxvHeader(kOxvVersion1, 0, 2, 2, {{640, 480, kYuv422, 8}, {640, 480, kYuv422, 8}});
    const std::size_t header = file.size();
    file.resize(header + 2 * 1228800);
    file[header + 1228800 + 614400] = 77; // first byte of the second stream in frame 1
    ASSERT_TRUE(open(video, file));
    KRImage image = makeEmptyImage(640, 480, kYuv422);
    EXPECT_TRUE(video.getFrame(image, 1, 1, true));
    EXPECT_EQ(image.timeStamp, 77);
}

TEST_F(KRVideoReading, NoStreamsAreReadAsOne) {
    KRVideo video;
    Bytes file = makeOxvHeader(kOxvVersion1, 0, 1, 0, {{160, 120, kLuma, 8}});
    appendChunk(file, 0, 0, kChunk);
    ASSERT_TRUE(open(video, file));
    EXPECT_EQ(video.getStreams().size(), 1u);
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, kChunk));
}

TEST_F(KRVideoReading, ARecordingThatWasNeverClosedIsAccepted) {
    KRVideo video;
    Bytes file = makeOxvHeader(kOxvVersion1, 0, 0xFFFFFFFF, 1, {{160, 120, kLuma, 8}});
    appendChunk(file, 0, 0, kChunk);
    appendChunk(file, 1, 0, kChunk);
    ASSERT_TRUE(open(video, file));
    EXPECT_EQ(video.getFrameCount(), 0xFFFFFFFFu);
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 1, 0, true));
    EXPECT_TRUE(holdsChunk(image, 1, 0, kChunk));
}

TEST_F(KRVideoReading, TheExtraHeaderIsSkipped) {
    write(2, 1, kOxvVersion1, 100);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 1, 0, true));
    EXPECT_TRUE(holdsChunk(image, 1, 0, kChunk));
}

TEST_F(KRVideoReading, AnotherFileTakesThePlaceOfTheFirst) {
    write(3);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    video.goToFrame(2, 0);
    write(3, 2);
    EXPECT_TRUE(video.readVideo(path()));
    EXPECT_EQ(video.getStreams().size(), 2u);
    EXPECT_EQ(video.getCurrentFrame(), 2u); // stays what it was
    EXPECT_EQ(video.getCurrentStream(), 0u);
    EXPECT_THROW(video.readVideo(path("missing")), KR::KRError);
    KRImage image = makeEmptyImage();
    EXPECT_FALSE(video.getFrame(image, 0, 0, true));
}

// ---- where no file is open

TEST_F(KRVideoReading, NothingIsReadBeforeAFileIsOpen) {
    KRVideo video;
    KRImage image = makeEmptyImage();
    EXPECT_FALSE(video.goToFrame(0, 0));
    EXPECT_FALSE(video.getFrame(image, 0, 0, true));
    EXPECT_FALSE(video.getNextFrame(image, true));
    EXPECT_FALSE(video.getPrecedingFrame(image, true));
    video.closeVideo();
    EXPECT_EQ(video.getCurrentFrame(), 0u);
    EXPECT_EQ(image.timeStamp, -1);
}

// Closing does not end the reading: deliberate.
TEST_F(KRVideoReading, AfterClosingOperationsStillReturnTrueAndTheBufferStaysAsItIs) {
    write(3);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    ASSERT_TRUE(video.getFrame(image, 1, 0, true));
    video.closeVideo();
    EXPECT_TRUE(video.goToFrame(0, 0));
    EXPECT_TRUE(video.getFrame(image, 2, 0, true));
    EXPECT_TRUE(holdsChunk(image, 1, 0, kChunk));
    EXPECT_TRUE(video.readVideo(path()));
    EXPECT_TRUE(video.getFrame(image, 2, 0, true));
    EXPECT_TRUE(holdsChunk(image, 2, 0, kChunk));
}

// ---- frames

TEST_F(KRVideoReading, EveryChunkOfEveryFrameIsFound) {
    write(4, 3);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    for (const unsigned frame : {3u, 0u, 2u, 1u}) {
        for (const unsigned stream : {1u, 2u, 0u}) {
            EXPECT_TRUE(video.getFrame(image, frame, stream, true));
            EXPECT_TRUE(holdsChunk(image, frame, stream, kChunk)) << frame << " " << stream;
            EXPECT_EQ(video.getCurrentFrame(), frame);
            EXPECT_EQ(video.getCurrentStream(), stream);
        }
    }
}

TEST_F(KRVideoReading, BeyondTheEndIsTheLastFrameOfTheLastStream) {
    write(3, 2);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    for (const unsigned beyond : {3u, 4u, 0xFFFFFFFFu}) {
        EXPECT_TRUE(video.getFrame(image, beyond, beyond, true));
        EXPECT_TRUE(holdsChunk(image, 2, 1, kChunk));
        video.goToFrame(0, 0);
        EXPECT_TRUE(video.goToFrame(beyond, beyond));
        EXPECT_EQ(video.getCurrentFrame(), 2u);
        EXPECT_EQ(video.getCurrentStream(), 1u);
    }
}

// The header of a chunk stays in place of the first pixels: deliberate.
TEST_F(KRVideoReading, TheHeaderOfTheChunkStaysInTheBuffer) {
    write(1);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    Bytes chunk;
    appendChunk(chunk, 0, 0, kChunk);
    EXPECT_EQ(Bytes(image.data.get(), image.data.get() + kChunk), chunk);
}

TEST_F(KRVideoReading, NextRightAfterOpeningIsFrame0CountedAsFrame1) {
    write(3);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getNextFrame(image, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, kChunk));
    EXPECT_EQ(video.getCurrentFrame(), 1u);
}

TEST_F(KRVideoReading, NextAndPrecedingStepWithinTheStream) {
    write(4, 3);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    for (const unsigned stream : {0u, 1u, 2u}) {
        ASSERT_TRUE(video.getFrame(image, 0, stream, true));
        for (const unsigned frame : {1u, 2u, 3u}) {
            EXPECT_TRUE(video.getNextFrame(image, true));
            EXPECT_TRUE(holdsChunk(image, frame, stream, kChunk)) << frame << " " << stream;
        }
        for (const unsigned frame : {2u, 1u}) {
            EXPECT_TRUE(video.getPrecedingFrame(image, true));
            EXPECT_TRUE(holdsChunk(image, frame, stream, kChunk)) << frame << " " << stream;
        }
        EXPECT_TRUE(video.getNextFrame(image, true));
        EXPECT_TRUE(holdsChunk(image, 2, stream, kChunk));
        EXPECT_EQ(video.getCurrentStream(), stream);
    }
}

// getNextFrame continues from the current position, which after goToFrame is the start of a chunk: deliberate.
TEST_F(KRVideoReading, NextAfterGoToFrameLandsOneChunkEarly) {
    write(4, 3);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.goToFrame(1, 1));
    EXPECT_TRUE(video.getNextFrame(image, true));
    EXPECT_EQ(video.getCurrentFrame(), 2u);
    EXPECT_TRUE(holdsChunk(image, 2, 0, kChunk));
}

TEST_F(KRVideoReading, NextStopsAtTheLastFrame) {
    write(2);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 1, 0, true));
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(video.getNextFrame(image, true));
        EXPECT_EQ(video.getCurrentFrame(), 1u);
    }
    EXPECT_TRUE(video.getPrecedingFrame(image, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, kChunk));
}

TEST_F(KRVideoReading, PrecedingStopsAtTheFirstFrame) {
    write(2);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_FALSE(video.getPrecedingFrame(image, true));
    EXPECT_EQ(video.getCurrentFrame(), 0u);
    EXPECT_TRUE(video.getNextFrame(image, true));
    EXPECT_TRUE(holdsChunk(image, 1, 0, kChunk));
}

TEST_F(KRVideoReading, SteppingIntoAnImageThatOwnsNothingMovesAllTheSame) {
    write(3);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage none(160, 120, kLuma, true, 0, 0, 0, 0);
    EXPECT_FALSE(video.getNextFrame(none, true));
    EXPECT_EQ(video.getCurrentFrame(), 1u);
    EXPECT_FALSE(video.getFrame(none, 2, 0, true));
    EXPECT_EQ(video.getCurrentFrame(), 2u);
    EXPECT_FALSE(video.getPrecedingFrame(none, true));
    EXPECT_EQ(video.getCurrentFrame(), 1u);
}

TEST_F(KRVideoReading, OfNoFramesGoesNowhere) {
    KRVideo video;
    ASSERT_TRUE(open(video, makeOxvHeader(kOxvVersion1, 0, 0, 1, {{160, 120, kLuma, 8}})));
    KRImage image = makeEmptyImage();
    EXPECT_FALSE(video.getNextFrame(image, true));
    EXPECT_FALSE(video.getNextFrame(image, true));
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_EQ(video.getCurrentFrame(), 0xFFFFFFFFu);
}

// Offsets wrap at 32 bits: deliberate.
TEST_F(KRVideoReading, AFrameBeyond4GiBIsLookedForAtTheBeginning) {
    Bytes file = makeOxvHeader(kOxvVersion1, 0, 0xFFFFFFFF, 1, {{160, 120, kLuma, 8}});
    appendChunk(file, 0, 0, kChunk);
    appendChunk(file, 1, 0, kChunk);
    KRVideo video;
    ASSERT_TRUE(open(video, file));
    KRImage image = makeEmptyImage();
    constexpr unsigned kFar = 1u << 24; // times 19200 bytes: 75 * 2^32
    EXPECT_TRUE(video.getFrame(image, kFar, 0, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, kChunk));
    EXPECT_TRUE(video.getNextFrame(image, true));
    EXPECT_TRUE(holdsChunk(image, 1, 0, kChunk));
    EXPECT_EQ(video.getCurrentFrame(), kFar + 1);
    EXPECT_TRUE(video.getPrecedingFrame(image, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, kChunk));
}

TEST_F(KRVideoReading, ATruncatedChunkLeavesTheRestOfTheBufferAsItWas) {
    Bytes file = makeOxvHeader(kOxvVersion1, 0, 2, 1, {{160, 120, kLuma, 8}});
    appendChunk(file, 0, 0, kChunk);
    appendChunk(file, 1, 0, 1000);
    KRVideo video;
    ASSERT_TRUE(open(video, file));
    KRImage image = makeEmptyImage();
    ASSERT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_TRUE(video.getNextFrame(image, true));
    EXPECT_EQ(image.timeStamp, timeStampOf(1, 0));
    EXPECT_EQ(image.data[999], pixelOf(1, 0, 999));
    EXPECT_EQ(image.data[1000], pixelOf(0, 0, 1000));
    EXPECT_TRUE(video.getFrame(image, 0, 0, true)); // and the file can still be read
    EXPECT_TRUE(holdsChunk(image, 0, 0, kChunk));
}

// ---- angles

float floatAt(const Bytes& bytes, std::size_t at) {
    float value = 0;
    std::memcpy(&value, &bytes[at], sizeof value);
    return value;
}

TEST_F(KRVideoReading, GetFrameTakesAllFourAnglesAsWritten) {
    write(2);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    KRImage image = makeEmptyImage();
    ASSERT_TRUE(video.getFrame(image, 1, 0, true));
    EXPECT_EQ(image.leftAngle, 0.5f);
    EXPECT_EQ(image.topAngle, 0.25f);
    EXPECT_EQ(image.rightAngle, -0.5f);
    EXPECT_EQ(image.bottomAngle, -0.25f);
}

// The stepping operations read overlapping angles: deliberate.
TEST_F(KRVideoReading, NextAndPrecedingTakeTheAnglesOneByteApart) {
    write(3);
    Bytes chunk;
    appendChunk(chunk, 0, 0, 25);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    for (const bool forward : {true, false}) {
        KRImage image = makeEmptyImage();
        ASSERT_TRUE(video.getFrame(image, 1, 0, true));
        ASSERT_TRUE(forward ? video.getNextFrame(image, true) : video.getPrecedingFrame(image, true));
        EXPECT_EQ(image.leftAngle, 0.5f);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(image.topAngle), 0x003F0000u);
        EXPECT_EQ(image.topAngle, floatAt(chunk, 10));
        EXPECT_EQ(image.rightAngle, floatAt(chunk, 11));
        EXPECT_EQ(image.bottomAngle, floatAt(chunk, 12));
    }
}

TEST_F(KRVideoReading, OfVersion0HasTheDefaultAnglesEveryWay) {
    write(3, 1, kOxvVersion0);
    KRVideo video;
    ASSERT_TRUE(video.readVideo(path()));
    for (int way = 0; way < 3; ++way) {
        KRImage image = makeEmptyImage();
        EXPECT_TRUE(way == 0   ? video.getFrame(image, 1, 0, true)
                    : way == 1 ? video.getNextFrame(image, true)
                               : video.getPrecedingFrame(image, true));
        EXPECT_EQ(image.leftAngle, 0.4169222f);
        EXPECT_EQ(image.topAngle, 0.32097778f);
        EXPECT_EQ(image.rightAngle, -0.4169222f);
        EXPECT_EQ(image.bottomAngle, -0.32097778f);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(image.topAngle), 0x3EA45733u);
    }
}

} // namespace
