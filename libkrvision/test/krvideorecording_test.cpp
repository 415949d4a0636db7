#include "krvision/krvideo.hpp"

#include "krplatform/krerror.hpp"
#include "oxvfile.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

namespace {

using namespace KR::test;
using KR::KRImage;
using KR::KRVideo;
using KR::streamHeader;

const std::vector<streamHeader> kLumaStream = {{160, 120, kLuma, 8}};

class KRVideoRecording : public testing::Test {
protected:
    // The path of the recording, without the extension.
    std::string path(const std::string& name = "video") const { return folder_.path(name); }
    Bytes recorded(const std::string& name = "video") const { return readAll(path(name) + ".oxv"); }

    static bool writeFrame(KRVideo& video, Bytes& image, unsigned frame = 0, unsigned stream = 0) {
        return video.write(reinterpret_cast<char*>(image.data()), static_cast<int>(image.size()),
                           timeStampOf(frame, stream), static_cast<char>(stream), 0.5f, 0.25f, -0.5f, -0.25f);
    }
    static bool writeBgr(KRVideo& video, int rows, int cols, Bytes& bgr) {
        return video.write(rows, cols, reinterpret_cast<char*>(bgr.data()), timeStampOf(0, 0), 0, 0.5f, 0.25f,
                           -0.5f, -0.25f);
    }
    // Closes the recording. \return the text on standard output
    static std::string close(KRVideo& video) {
        testing::internal::CaptureStdout();
        video.closeVideo();
        return testing::internal::GetCapturedStdout();
    }
    static Bytes makePixels(unsigned frame, unsigned stream, std::size_t size) {
        Bytes pixels;
        for (std::size_t at = 0; at < size; ++at) {
            pixels.push_back(pixelOf(frame, stream, at));
        }
        return pixels;
    }

private:
    const TemporaryFolder folder_;
};

// The example of docs/oxv.md.
TEST_F(KRVideoRecording, HoldsTheHeadersAndTheChunks) {
    KRVideo video;
    ASSERT_TRUE(video.recordVideo(path(), 0, {{160, 120, 0, 8}}));
    Bytes image = makePixels(0, 0, 19200);
    EXPECT_TRUE(video.write(reinterpret_cast<char*>(image.data()), 19200, 1500000000123456, -2, 0.5f, 0.25f,
                            -0.5f, -0.25f));
    close(video);
    Bytes file = recorded();
    ASSERT_EQ(file.size(), 32u + 19200u);
    file.resize(64);
    EXPECT_EQ(file, (Bytes{
                        0x31, 0x56, 0x58, 0x4f, 0x00, 0x00, 0x00, 0x00, //
                        0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, //
                        0xa0, 0x00, 0x00, 0x00, 0x78, 0x00, 0x00, 0x00, //
                        0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, //
                        0x40, 0xa2, 0x2b, 0xf7, 0x3d, 0x54, 0x05, 0x00, //
                        0xfe, 0x00, 0x00, 0x00, 0x3f, 0x00, 0x00, 0x80, //
                        0x3e, 0x00, 0x00, 0x00, 0xbf, 0x00, 0x00, 0x80, //
                        0xbe, 0xaf, 0xb6, 0xbd, 0xc4, 0xcb, 0xd2, 0xd9, //
                    }));
    image.erase(image.begin(), image.begin() + 25);
    const Bytes whole = recorded();
    EXPECT_EQ(Bytes(whole.begin() + 57, whole.end()), image);
}

TEST_F(KRVideoRecording, AlwaysAppendsTheExtension) {
    KRVideo video;
    EXPECT_TRUE(video.recordVideo(path("a"), 0, kLumaStream));
    EXPECT_TRUE(std::filesystem::exists(path("a.oxv")));
    EXPECT_FALSE(std::filesystem::exists(path("a")));
    KRVideo other;
    EXPECT_TRUE(other.recordVideo(path("a.oxv"), 0, kLumaStream));
    EXPECT_TRUE(std::filesystem::exists(path("a.oxv.oxv")));
}

TEST_F(KRVideoRecording, ThatCannotBeOpenedIsAnError) {
    KRVideo video;
    try {
        video.recordVideo(path("missing/video"), 0, kLumaStream);
        FAIL() << "no error";
    } catch (const KR::KRError& error) {
        EXPECT_EQ(error.getModule(), "KRVideo");
        EXPECT_EQ(error.getMethod(), "recordVideo");
        EXPECT_EQ(error.getDescription(), "Can't open file. Check its path and presence");
    }
    Bytes image(19200);
    EXPECT_FALSE(writeFrame(video, image));
    EXPECT_EQ(close(video), "");
}

TEST_F(KRVideoRecording, NothingIsWrittenUnlessRecording) {
    KRVideo video;
    Bytes image(19200), bgr(6);
    EXPECT_FALSE(writeFrame(video, image));
    EXPECT_FALSE(writeBgr(video, 1, 2, bgr));
    video.recordVideo(path(), 0, kLumaStream);
    close(video);
    EXPECT_FALSE(writeFrame(video, image));
    EXPECT_FALSE(writeBgr(video, 1, 2, bgr));
    EXPECT_EQ(recorded().size(), 32u);
}

TEST_F(KRVideoRecording, ClosedWithoutAFrameHasNone) {
    KRVideo video;
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_EQ(close(video), "stop recording " + path() + ".oxv file (0 frames)\n");
    EXPECT_EQ(recorded(), makeOxvHeader(kOxvVersion1, 0, 0, 1, kLumaStream));
}

TEST_F(KRVideoRecording, ThatIsNotClosedHas0xFFFFFFFFFrames) {
    {
        KRVideo video;
        video.recordVideo(path(), 0, kLumaStream);
        Bytes image(19200);
        EXPECT_TRUE(writeFrame(video, image));
        EXPECT_EQ(video.getFrameCount(), 1u);
    }
    Bytes file = recorded();
    ASSERT_EQ(file.size(), 32u + 19200u);
    file.resize(32);
    EXPECT_EQ(file, makeOxvHeader(kOxvVersion1, 0, 0xFFFFFFFF, 1, kLumaStream));
}

TEST_F(KRVideoRecording, IsClosedOnce) {
    KRVideo video;
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_NE(close(video), "");
    EXPECT_EQ(close(video), "");
}

TEST_F(KRVideoRecording, ReplacesTheFileThatIsThere) {
    writeAll(path() + ".oxv", Bytes(100000, 7));
    KRVideo video;
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_EQ(recorded().size(), 32u);
}

// The extra header is announced but not written: deliberate.
TEST_F(KRVideoRecording, DoesNotWriteTheExtraHeader) {
    KRVideo video;
    video.recordVideo(path(), 1000, kLumaStream);
    Bytes image(19200);
    writeFrame(video, image);
    close(video);
    Bytes file = recorded();
    EXPECT_EQ(file.size(), 32u + 19200u);
    file.resize(32);
    EXPECT_EQ(file, makeOxvHeader(kOxvVersion1, 1000, 1, 1, kLumaStream));
}

TEST_F(KRVideoRecording, TakesItsStreamsAsTheyAre) {
    KRVideo video;
    video.recordVideo(path(), 0, {});
    EXPECT_EQ(recorded(), makeOxvHeader(kOxvVersion1, 0, 0xFFFFFFFF, 0, {}));
    const std::vector<streamHeader> streams = {{1, 2, 3, 4}, {5, 6, 7, 0xFFFFFFFF}};
    video.recordVideo(path("other"), 0, streams);
    EXPECT_EQ(recorded("other"), makeOxvHeader(kOxvVersion1, 0, 0xFFFFFFFF, 2, streams));
}

TEST_F(KRVideoRecording, ASecondRecordingGivesUpTheFirst) {
    KRVideo video;
    Bytes image(19200);
    video.recordVideo(path("first"), 0, kLumaStream);
    writeFrame(video, image);
    EXPECT_TRUE(video.recordVideo(path("second"), 0, kLumaStream));
    writeFrame(video, image);
    writeFrame(video, image);
    EXPECT_EQ(close(video), "stop recording " + path("second") + ".oxv file (2 frames)\n");
    EXPECT_EQ(recorded("first").size(), 32u + 19200u);
    EXPECT_EQ(recorded("first")[8], 0xFF);
    EXPECT_EQ(recorded("second")[8], 2);
}

TEST_F(KRVideoRecording, GoesOnIfASecondOneCannotBeOpened) {
    KRVideo video;
    Bytes image(19200);
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_THROW(video.recordVideo(path("missing/video"), 0, kLumaStream), KR::KRError);
    EXPECT_TRUE(writeFrame(video, image));
    EXPECT_EQ(close(video), "stop recording " + path() + ".oxv file (1 frames)\n");
}

// Each call counts, so with several streams the header counts chunks: deliberate.
TEST_F(KRVideoRecording, CountsChunksNotFrames) {
    KRVideo video;
    video.recordVideo(path(), 0, {kLumaStream[0], kLumaStream[0]});
    for (unsigned frame = 0; frame < 2; ++frame) {
        for (unsigned stream = 0; stream < 2; ++stream) {
            Bytes image = makePixels(frame, stream, 19200);
            EXPECT_TRUE(writeFrame(video, image, frame, stream));
        }
    }
    EXPECT_EQ(close(video), "stop recording " + path() + ".oxv file (4 frames)\n");
    ASSERT_TRUE(video.readVideo(path() + ".oxv"));
    EXPECT_EQ(video.getFrameCount(), 4u);
    KRImage image = makeEmptyImage();
    for (unsigned frame = 0; frame < 2; ++frame) {
        for (unsigned stream = 0; stream < 2; ++stream) {
            EXPECT_TRUE(video.getFrame(image, frame, stream, true));
            EXPECT_TRUE(holdsChunk(image, frame, stream, 19200));
        }
    }
}

TEST_F(KRVideoRecording, ReadsBackAsItWasWritten) {
    KRVideo video;
    video.recordVideo(path(), 0, {{320, 240, kYuv422, 8}});
    for (unsigned frame = 0; frame < 3; ++frame) {
        Bytes image = makePixels(frame, 0, 153600);
        EXPECT_TRUE(writeFrame(video, image, frame));
    }
    close(video);
    KRVideo reader;
    ASSERT_TRUE(reader.readVideo(path() + ".oxv"));
    EXPECT_EQ(reader.getFrameCount(), 3u);
    KRImage image = makeEmptyImage();
    ASSERT_TRUE(reader.getFrame(image, 0, 0, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, 153600));
    EXPECT_EQ(image.leftAngle, 0.5f);
    EXPECT_EQ(image.topAngle, 0.25f);
    EXPECT_EQ(image.rightAngle, -0.5f);
    EXPECT_EQ(image.bottomAngle, -0.25f);
    for (const bool forward : {true, true, false}) {
        ASSERT_TRUE(forward ? reader.getNextFrame(image, true) : reader.getPrecedingFrame(image, true));
        EXPECT_TRUE(holdsChunk(image, reader.getCurrentFrame(), 0, 153600));
        EXPECT_EQ(image.leftAngle, 0.5f);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(image.topAngle), 0x003F0000u);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(image.rightAngle), 0x00003F00u);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(image.bottomAngle), 0x8000003Fu);
    }
}

TEST_F(KRVideoRecording, AnImageOf25BytesOrFewerIsAHeaderAlone) {
    KRVideo video;
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_TRUE(video.write(nullptr, 25, 0, 0, 0, 0, 0, 0));
    EXPECT_TRUE(video.write(nullptr, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_TRUE(video.write(nullptr, -5, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(recorded().size(), 32u + 3 * 25u);
    EXPECT_EQ(video.getFrameCount(), 3u);
}

// ---- from BGR

TEST_F(KRVideoRecording, BgrIsWrittenAsTheImageConvertsIt) {
    Bytes bgr(320 * 240 * 3);
    for (std::size_t i = 0; i < bgr.size(); ++i) {
        bgr[i] = static_cast<unsigned char>(i * i / 13);
    }
    KRVideo video;
    video.recordVideo(path(), 0, {{320, 240, kYuv422, 8}});
    EXPECT_TRUE(writeBgr(video, 240, 320, bgr));
    EXPECT_TRUE(writeBgr(video, 240, 320, bgr));
    EXPECT_EQ(close(video), "stop recording " + path() + ".oxv file (2 frames)\n");
    EXPECT_EQ(recorded().size(), 32u + 2 * 153600u);

    KRImage expected = makeEmptyImage(320, 240, kYuv422);
    expected.computeYUV422imageFromBGR(240, 320, reinterpret_cast<char*>(bgr.data()));
    ASSERT_TRUE(video.readVideo(path() + ".oxv"));
    KRImage image = makeEmptyImage();
    ASSERT_TRUE(video.getFrame(image, 1, 0, true));
    EXPECT_EQ(std::memcmp(image.data.get() + 25, expected.data.get() + 25, 153600 - 25), 0);
    EXPECT_EQ(image.timeStamp, timeStampOf(0, 0));
    EXPECT_EQ(image.cameraId, 0);
    EXPECT_EQ(image.bottomAngle, -0.25f);
}

TEST_F(KRVideoRecording, BgrOf12PixelsOrFewerIsAHeaderAlone) {
    Bytes bgr(12 * 3, 100);
    KRVideo video;
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_TRUE(writeBgr(video, 3, 4, bgr));
    EXPECT_TRUE(writeBgr(video, 0, 0, bgr));
    EXPECT_EQ(recorded().size(), 32u + 2 * 25u);
}

TEST_F(KRVideoRecording, BgrOfAnOddNumberOfPixelsEndsInZeros) {
    Bytes bgr(5 * 5 * 3, 100);
    KRVideo video;
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_TRUE(writeBgr(video, 5, 5, bgr));
    const Bytes file = recorded();
    ASSERT_EQ(file.size(), 32u + 50u);
    EXPECT_NE(file[file.size() - 3], 0);
    EXPECT_EQ(file[file.size() - 2], 0);
    EXPECT_EQ(file[file.size() - 1], 0);
}

TEST_F(KRVideoRecording, BgrOfANegativeSizeIsNotAllocatedAndNotWritten) {
    Bytes bgr(3);
    KRVideo video;
    video.recordVideo(path(), 0, kLumaStream);
    EXPECT_THROW(writeBgr(video, -1, 2, bgr), std::bad_alloc);
    EXPECT_EQ(recorded().size(), 32u);
    EXPECT_EQ(video.getFrameCount(), 0u);
}

// ---- where the file cannot be written

TEST_F(KRVideoRecording, DoesNotTellThatTheDiskIsFull) {
    std::filesystem::create_symlink("/dev/full", path("full.oxv"));
    KRVideo video;
    EXPECT_TRUE(video.recordVideo(path("full"), 0, kLumaStream));
    Bytes image(19200);
    EXPECT_TRUE(writeFrame(video, image));
    EXPECT_EQ(close(video), "stop recording " + path("full") + ".oxv file (1 frames)\n");
}

} // namespace
