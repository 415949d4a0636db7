#include "krvision/krvideo.hpp"

#include "krplatform/krerror.hpp"
#include "oxvfile.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

// The images that frames are read into, and files that would overrun them.

namespace {

using namespace KR::test;
using KR::KRImage;
using KR::KRVideo;
using KR::streamHeader;

class KRVideoImage : public testing::Test {
protected:
    // Opens a file of two frames of one stream, with only so many bytes of each chunk.
    void open(KRVideo& video, streamHeader stream, std::size_t chunkBytes) const {
        Bytes file = makeOxvHeader(kOxvVersion1, 0, 2, 1, {stream});
        appendChunk(file, 0, 0, chunkBytes);
        appendChunk(file, 1, 0, chunkBytes);
        openBytes(video, file);
    }
    void openBytes(KRVideo& video, const Bytes& file) const {
        writeAll(folder_.path("video.oxv"), file);
        video.readVideo(folder_.path("video.oxv"));
    }

private:
    const TemporaryFolder folder_;
};

TEST_F(KRVideoImage, AdaptsToTheColorSpaceAndTheSizeOfTheStream) {
    KRVideo video;
    open(video, {320, 240, kYuv422, 8}, 153600);
    KRImage image = makeEmptyImage(160, 120, kLuma);
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_EQ(image.width, 320);
    EXPECT_EQ(image.height, 240);
    EXPECT_EQ(image.nbLayers, 2);
    EXPECT_EQ(image.colorSpace, kYuv422);
    EXPECT_EQ(image.allocatedSize, 153600);
    EXPECT_EQ(image.allocatedResolution, 1);
    EXPECT_EQ(image.allocatedLayers, 2);
    EXPECT_TRUE(holdsChunk(image, 0, 0, 153600));
}

TEST_F(KRVideoImage, KeepsALargerBufferWhenItAdapts) {
    KRVideo video;
    open(video, {160, 120, kLuma, 8}, 19200);
    KRImage image = makeEmptyImage(640, 480, 13);
    const unsigned char* const buffer = image.data.get();
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_EQ(image.data.get(), buffer);
    EXPECT_EQ(image.width, 160);
    EXPECT_EQ(image.nbLayers, 1);
    EXPECT_EQ(image.allocatedSize, 640 * 480 * 3);
    EXPECT_TRUE(holdsChunk(image, 0, 0, 19200));
}

TEST_F(KRVideoImage, ThatMatchesKeepsItsBufferWithEveryFrame) {
    KRVideo video;
    open(video, {160, 120, kLuma, 8}, 19200);
    KRImage image = makeEmptyImage();
    const KRImage sharing = image;
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_TRUE(video.getNextFrame(image, true));
    EXPECT_TRUE(video.getPrecedingFrame(image, true));
    EXPECT_EQ(image.data.get(), sharing.data.get());
}

TEST_F(KRVideoImage, MustOwnItsBufferToAdapt) {
    KRVideo video;
    open(video, {160, 120, kLuma, 8}, 19200);
    Bytes pixels(19200, 0xA5);
    KRImage image(160, 120, kLuma, true, 0, 0, 0, 0);
    EXPECT_FALSE(video.getFrame(image, 0, 0, true));
    image.data = KRImage::externalData(pixels.data());
    EXPECT_FALSE(video.getFrame(image, 0, 0, true));
    EXPECT_EQ(pixels, Bytes(19200, 0xA5));
    EXPECT_EQ(image.timeStamp, -1);
}

TEST_F(KRVideoImage, IsReadIntoAnExternalBufferWithoutAdapting) {
    KRVideo video;
    open(video, {160, 120, kLuma, 8}, 19200);
    Bytes pixels(19201, 0xA5);
    KRImage image(80, 60, 13, true, 0, 0, 0, 0);
    image.data = KRImage::externalData(pixels.data());
    EXPECT_TRUE(video.getFrame(image, 0, 0, false));
    EXPECT_TRUE(holdsChunk(image, 0, 0, 19200));
    EXPECT_EQ(pixels.back(), 0xA5);
    EXPECT_EQ(image.width, 80);
    EXPECT_EQ(image.colorSpace, 13);
    EXPECT_EQ(image.leftAngle, 0.5f);
    EXPECT_TRUE(video.getNextFrame(image, false));
    EXPECT_TRUE(holdsChunk(image, 1, 0, 19200));
    EXPECT_TRUE(video.getPrecedingFrame(image, false));
    EXPECT_TRUE(holdsChunk(image, 0, 0, 19200));
}

TEST_F(KRVideoImage, ThatIsTooSmallIsRefusedWithoutAdapting) {
    KRVideo video;
    open(video, {160, 120, kLuma, 8}, 19200);
    KRImage none(160, 120, kLuma, true, 0, 0, 0, 0);
    EXPECT_FALSE(video.getFrame(none, 0, 0, false));
    KRImage small = makeEmptyImage(80, 60, kLuma);
    EXPECT_FALSE(video.getFrame(small, 0, 0, false));
    EXPECT_FALSE(video.getNextFrame(small, false));
    EXPECT_FALSE(video.getPrecedingFrame(small, false));
}

// ---- where the geometry and the buffer disagree

TEST_F(KRVideoImage, OfASmallSizeWithALargeCodeGetsALargerBuffer) {
    KRVideo video;
    open(video, {640, 480, kYuv422, 8}, 614400);
    for (const int resolution : {7, 8}) {
        KRImage image(resolution, kYuv422, false, 0, 0, 0, 0);
        EXPECT_TRUE(video.getFrame(image, 0, 0, true));
        EXPECT_TRUE(holdsChunk(image, 0, 0, 614400));
        EXPECT_EQ(image.allocatedSize, 614400);
        EXPECT_EQ(image.allocatedResolution, 2);
        KRImage resized(resolution, kYuv422, false, 0, 0, 0, 0);
        resized.setResolution(2); // keeps the buffer
        EXPECT_TRUE(video.getFrame(resized, 0, 0, true));
        EXPECT_TRUE(holdsChunk(resized, 0, 0, 614400));
    }
}

TEST_F(KRVideoImage, OfASizeWithoutCodeAdapts) {
    KRVideo video;
    open(video, {640, 480, kYuv422, 8}, 614400);
    for (const int colorSpace : {kLuma, 13}) {
        KRImage image = makeEmptyImage(100, 100, colorSpace);
        EXPECT_TRUE(video.getFrame(image, 0, 0, true));
        EXPECT_TRUE(holdsChunk(image, 0, 0, 614400));
        EXPECT_EQ(image.width, 640);
        EXPECT_EQ(image.nbLayers, 2);
        EXPECT_EQ(image.colorSpace, kYuv422);
    }
}

TEST_F(KRVideoImage, ThatAFileHasGivenASmallerBufferGetsALargerOne) {
    const TemporaryFolder folder;
    makeEmptyImage(2, 1, kYuv422).writeFile(folder.path("image.oxi").c_str());
    KRVideo video;
    open(video, {640, 480, kYuv422, 8}, 614400);
    KRImage image = makeEmptyImage(640, 480, kYuv422);
    ASSERT_TRUE(image.readFile(folder.path("image.oxi").c_str()));
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, 614400));
}

TEST_F(KRVideoImage, OfLayersThatAreNotItsColorSpacesGetsThose) {
    KRVideo video;
    open(video, {160, 120, kYuv422, 8}, 38400);
    KRImage image = makeEmptyImage(160, 120, kYuv422);
    image.nbLayers = 1000; // as from a file
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_EQ(image.nbLayers, 2);
}

TEST_F(KRVideoImage, WhoseBufferTheCallerMadeToOwnGetsOneOfKnownSize) {
    KRVideo video;
    open(video, {160, 120, kLuma, 8}, 19200);
    KRImage image(160, 120, kLuma, true, 0, 0, 0, 0);
    image.data = {new unsigned char[10], KRImage::deleter{false}};
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, 19200));
}

// ---- depths other than 8

TEST_F(KRVideoImage, GetsABufferForADepthAbove8) {
    KRVideo video;
    open(video, {160, 120, kLuma, 16}, 38400);
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_TRUE(holdsChunk(image, 0, 0, 38400));
    EXPECT_EQ(image.allocatedSize, 38400);
    EXPECT_EQ(image.width, 160);
    EXPECT_EQ(image.nbLayers, 1);
}

TEST_F(KRVideoImage, HasRoomForItsPixelsAtADepthBelow8) {
    KRVideo video;
    open(video, {160, 120, kLuma, 4}, 9600);
    KRImage image = makeEmptyImage(40, 30, kLuma);
    EXPECT_TRUE(video.getFrame(image, 1, 0, true));
    EXPECT_TRUE(holdsChunk(image, 1, 0, 9600));
    std::fill_n(image.data.get(), 19200, static_cast<unsigned char>(0)); // fully accessible
}

TEST_F(KRVideoImage, IsRefusedForChunksThatTheFileCannotHold) {
    KRVideo video;
    open(video, {640, 480, 10, 0x1000}, 100); // 450 MiB each
    KRImage image = makeEmptyImage(160, 120, kLuma);
    EXPECT_FALSE(video.getFrame(image, 0, 0, true));
    EXPECT_FALSE(video.getFrame(image, 0, 0, false));
    EXPECT_EQ(image.width, 160); // as it was
    EXPECT_EQ(image.colorSpace, kLuma);
    EXPECT_EQ(image.nbLayers, 1);
    EXPECT_EQ(image.allocatedSize, 19200);
}

TEST_F(KRVideoImage, GetsTheStampFromTheBufferWhereTheChunkIsShorterThanItsHeader) {
    for (const bool adapt : {false, true}) {
        KRVideo video;
        open(video, {160, 120, kLuma, 0}, 25); // chunks of no bytes
        ASSERT_EQ(video.getStreams()[0].chunkSize, 0u);
        KRImage image = makeEmptyImage();
        const std::int64_t stamp = 1500000000123456;
        std::memcpy(image.data.get(), &stamp, sizeof stamp);
        image.data[8] = 0xFE;
        EXPECT_TRUE(video.getFrame(image, 0, 0, adapt));
        EXPECT_EQ(image.timeStamp, stamp);
        EXPECT_EQ(image.cameraId, -2);
        EXPECT_EQ(image.leftAngle, 0.0f);
        image.timeStamp = -1;
        EXPECT_TRUE(video.getNextFrame(image, adapt));
        EXPECT_EQ(image.timeStamp, stamp);
        EXPECT_TRUE(video.getPrecedingFrame(image, adapt));
    }
}

TEST_F(KRVideoImage, WithFewerThan25BytesIsRefusedForAShortChunk) {
    KRVideo video;
    open(video, {160, 120, kLuma, 0}, 25);
    KRImage none(160, 120, kLuma, true, 0, 0, 0, 0);
    EXPECT_FALSE(video.getFrame(none, 0, 0, false));
    KRImage small = makeEmptyImage(4, 6); // owns 24 bytes
    EXPECT_FALSE(video.getFrame(small, 0, 0, false));
    unsigned char byte = 0;
    KRImage external(1, 1, kLuma, true, 0, 0, 0, 0);
    external.data = KRImage::externalData(&byte);
    EXPECT_FALSE(video.getFrame(external, 0, 0, false));
    Bytes pixels(160 * 120);
    KRImage enough(160, 120, kLuma, true, 0, 0, 0, 0);
    enough.data = KRImage::externalData(pixels.data());
    EXPECT_TRUE(video.getFrame(enough, 0, 0, false));
}

// The size of a chunk is a 32-bit product: deliberate.
TEST_F(KRVideoImage, OfADepthWhoseProductWrapsRoundHasAShortChunk) {
    KRVideo video;
    constexpr std::uint32_t kDepth = (1u << 24) + 8; // 19200 * 2^24 = 75 * 2^32
    open(video, {160, 120, kLuma, kDepth}, 19200);
    EXPECT_EQ(video.getStreams()[0].chunkSize, 19200u);
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 1, 0, true));
    EXPECT_TRUE(holdsChunk(image, 1, 0, 19200));
}

// ---- hostile files

TEST_F(KRVideoImage, ThatCannotBeReadGetsNoneOfTheMemorysFormerBytes) {
    KRVideo video;
    openBytes(video, makeOxvHeader(kOxvVersion1, 0, 2, 1, {{640, 480, kYuv422, 8}}));
    KRImage image = makeEmptyImage();
    EXPECT_TRUE(video.getFrame(image, 0, 0, true));
    EXPECT_EQ(image.timeStamp, 0);
    EXPECT_EQ(image.cameraId, 0);
    EXPECT_EQ(image.leftAngle, 0.0f);
}

TEST_F(KRVideoImage, FourBillionStreamsAreAnErrorNotAnAllocation) {
    for (const std::uint32_t streams : {0xFFFFFFFFu, 0x10000000u, 2u}) {
        KRVideo video;
        try {
            openBytes(video, makeOxvHeader(kOxvVersion1, 0, 1, streams, {{160, 120, kLuma, 8}}));
            FAIL() << "no error";
        } catch (const KR::KRError& error) {
            EXPECT_EQ(error.getDescription(), "Unsupported resolution");
        }
    }
}

TEST_F(KRVideoImage, AHeaderTruncatedAnywhereIsAnError) {
    const Bytes whole = makeOxvHeader(kOxvVersion1, 0, 1, 2, {{160, 120, kLuma, 8}, {320, 240, kYuv422, 8}});
    for (std::size_t size = 0; size < whole.size(); ++size) {
        KRVideo video;
        try {
            openBytes(video, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
            FAIL() << size << " bytes: no error";
        } catch (const KR::KRError& error) {
            EXPECT_EQ(error.getDescription(),
                      size < 4 ? "This oxv file version isn't supported" : "Unsupported resolution");
        }
    }
}

TEST_F(KRVideoImage, NoHeaderMakesAReadLeaveTheBuffer) {
    std::mt19937 random(1);
    Bytes whole = makeOxvHeader(kOxvVersion1, 0, 2, 2, {{160, 120, kLuma, 8}, {160, 120, 14, 8}});
    const std::size_t headerSize = whole.size();
    for (unsigned frame = 0; frame < 2; ++frame) {
        appendChunk(whole, frame, 0, 19200);
        appendChunk(whole, frame, 1, 38400);
    }
    int opened = 0;
    for (int i = 0; i < 500; ++i) {
        Bytes file = whole;
        for (auto changes = 1 + random() % 3; changes > 0; --changes) {
            // Mostly in the fields that a reader trusts: sizes, counts, colour spaces and depths.
            const std::size_t at = random() % 4 == 0 ? random() % headerSize : 4 + random() % 12;
            const std::size_t depth = 28 + 16 * (random() % 2) + random() % 4;
            file[random() % 2 == 0 ? at : depth] = static_cast<unsigned char>(random() >> (random() % 8));
        }
        file.resize(file.size() - random() % 20000);
        KRVideo video;
        try {
            openBytes(video, file);
        } catch (const KR::KRError&) {
            continue;
        }
        ++opened;
        KRImage image(static_cast<int>(random() % 9), static_cast<int>(random() % 17), false, 0, 0, 0, 0);
        for (int step = 0; step < 6; ++step) {
            const bool adapt = random() % 4 != 0;
            switch (random() % 4) {
            case 0:
                video.goToFrame(static_cast<unsigned>(random()), static_cast<unsigned>(random() % 3));
                break;
            case 1:
                video.getFrame(image, static_cast<unsigned>(random() % 4),
                               static_cast<unsigned>(random() % 3), adapt);
                break;
            case 2:
                video.getNextFrame(image, adapt);
                break;
            default:
                video.getPrecedingFrame(image, adapt);
            }
            image.data[image.width * image.height * image.nbLayers - 1] = 1; // accessible
        }
    }
    EXPECT_GT(opened, 50);
}

} // namespace
