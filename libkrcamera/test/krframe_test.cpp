#include "camera/krframe.hpp"

#include "conversion/krconverter.hpp"

#include "cameratest.hpp"

#include <algorithm>

namespace KR {

/// Frames in memory of the test.
class FrameTest : public testing::Test {
protected:
    FrameTest() { initGStreamer(); }

    std::unique_ptr<KRFrame> makeFrame(GstVideoFormat format, int width, int height,
                                       const char* colorimetry = nullptr, std::size_t stride = 0) {
        GstVideoInfo info;
        gst_video_info_set_format(&info, format, static_cast<guint>(width), static_cast<guint>(height));
        if (colorimetry != nullptr) {
            EXPECT_TRUE(gst_video_colorimetry_from_string(&info.colorimetry, colorimetry));
        }
        if (stride != 0) {
            info.stride[0] = static_cast<int>(stride);
            info.size = stride * static_cast<std::size_t>(height);
        }
        memory.assign(info.size, 128);
        KRCapture capture;
        capture.info = info;
        capture.buffer.reset(gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, memory.data(), info.size,
                                                         0, info.size, nullptr, nullptr));
        return std::make_unique<KRFrame>(1, capture, std::make_shared<KRConverter>());
    }

    /// Whether the pixels of such a frame are the camera's own memory.
    bool isShared(int resolution, int colorSpace, GstVideoFormat format, int width, int height,
                  const char* colorimetry = nullptr) {
        const auto frame = makeFrame(format, width, height, colorimetry);
        return frame->getPixels(resolution, colorSpace).data() == memory.data();
    }

    std::vector<unsigned char> memory;
};

TEST_F(FrameTest, PixelsInTheWantedFormatAreNotCopied) {
    EXPECT_TRUE(isShared(2, Space::Yuv422, GST_VIDEO_FORMAT_YUY2, 640, 480));
    EXPECT_TRUE(isShared(5, Space::Yuv422, GST_VIDEO_FORMAT_YUY2, 1280, 720, "bt601"));
    EXPECT_TRUE(isShared(1, Space::Luma, GST_VIDEO_FORMAT_GRAY8, 320, 240));
    EXPECT_TRUE(isShared(12, Space::Rgb, GST_VIDEO_FORMAT_RGB, 80, 45));
    EXPECT_TRUE(isShared(8, Space::Bgr, GST_VIDEO_FORMAT_BGR, 40, 30));
    EXPECT_TRUE(isShared(2, Space::Bgrx, GST_VIDEO_FORMAT_BGRx, 640, 480));
}

TEST_F(FrameTest, PixelsOfAnotherSizeLayoutStrideOrColorimetryAreConverted) {
    EXPECT_FALSE(isShared(1, Space::Yuv422, GST_VIDEO_FORMAT_YUY2, 640, 480));
    EXPECT_FALSE(isShared(2, Space::Yuv422, GST_VIDEO_FORMAT_UYVY, 640, 480));
    EXPECT_FALSE(isShared(5, Space::Yuv422, GST_VIDEO_FORMAT_YUY2, 1280, 720, "bt709"));
    EXPECT_FALSE(isShared(2, Space::Yuv422, GST_VIDEO_FORMAT_YUY2, 640, 480, "1:4:0:0"));

    const auto padded = makeFrame(GST_VIDEO_FORMAT_BGR, 40, 30, nullptr, 128);
    memory[128 * 29 + 3 * 39] = 7; // the blue of the last pixel
    const KRBinary pixels = padded->getPixels(8, Space::Bgr);
    ASSERT_EQ(pixels.size(), 3U * 40 * 30);
    EXPECT_EQ(pixels.data()[pixels.size() - 3], 7);
    EXPECT_EQ(pixels.data()[0], 128);
}

TEST_F(FrameTest, AConversionIsDoneOnceAndAligned) {
    const auto frame = makeFrame(GST_VIDEO_FORMAT_I420, 320, 240);
    const KRBinary first = frame->getPixels(2, Space::Bgr);
    EXPECT_EQ(frame->getPixels(2, Space::Bgr).data(), first.data());
    EXPECT_NE(frame->getPixels(2, Space::Rgb).data(), first.data());
    EXPECT_NE(frame->getPixels(1, Space::Bgr).data(), first.data());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first.data()) % 64, 0U);
}

// As in JPEG.
TEST_F(FrameTest, FullRangeColorsAreConvertedToTheUsualRange) {
    const auto frame = makeFrame(GST_VIDEO_FORMAT_I420, 320, 240, "1:4:0:0");
    std::fill(memory.begin(), memory.begin() + 320 * 240, static_cast<unsigned char>(255));
    for (const int resolution : {Resolution::QuarterVga, Resolution::Vga}) {
        EXPECT_EQ(frame->getPixels(resolution, Space::Yuv422).data()[0], 235);
        EXPECT_EQ(frame->getPixels(resolution, Space::Yuv422).data()[1], 128);
        EXPECT_EQ(frame->getPixels(resolution, Space::Luma).data()[0], 235);
        EXPECT_EQ(frame->getPixels(resolution, Space::Bgr).data()[0], 255);
    }
}

TEST_F(FrameTest, TheBordersOfAWideImageAreBlackInEveryRange) {
    for (const char* colorimetry : {"bt601", "1:4:0:0"}) {
        const auto frame = makeFrame(GST_VIDEO_FORMAT_I420, 320, 240, colorimetry);
        EXPECT_EQ(frame->getPixels(15, Space::Luma).data()[0], 16) << colorimetry;
        EXPECT_EQ(frame->getPixels(15, Space::Yuv422).data()[0], 16) << colorimetry;
        EXPECT_EQ(frame->getPixels(15, Space::Yuv422).data()[1], 128) << colorimetry;
        EXPECT_EQ(frame->getPixels(15, Space::Rgb).data()[0], 0) << colorimetry;
    }
}

TEST_F(FrameTest, AUniformPictureStaysUniformInEverySize) {
    for (const auto& [width, height] : {std::pair{640, 480}, {1280, 720}, {1920, 1080}, {320, 240}}) {
        const auto frame = makeFrame(GST_VIDEO_FORMAT_YUY2, width, height, "bt601");
        for (int resolution = 0; resolution <= 12; ++resolution) {
            const KRBinary pixels = frame->getPixels(resolution, Space::Yuv422);
            const auto [low, high] = std::minmax_element(pixels.data(), pixels.data() + pixels.size());
            EXPECT_EQ(*low, 128) << width << " to resolution " << resolution;
            EXPECT_EQ(*high, 128) << width << " to resolution " << resolution;
        }
    }
}

TEST_F(FrameTest, PixelsOutliveTheFrame) {
    KRBinary delivered;
    KRBinary converted;
    {
        const auto frame = makeFrame(GST_VIDEO_FORMAT_GRAY8, 320, 240);
        delivered = frame->getPixels(1, Space::Luma);
        converted = frame->getPixels(1, Space::Rgb);
    }
    EXPECT_EQ(delivered.data()[320 * 240 - 1], 128);
    EXPECT_EQ(converted.data()[320 * 240 * 3 - 1], 128);
}

TEST_F(FrameTest, AWidePictureFillsAWideImage) {
    const auto stereo = makeFrame(GST_VIDEO_FORMAT_GRAY8, 1280, 360);
    const KRBinary half = stereo->getPixels(15, Space::Luma);
    EXPECT_TRUE(std::all_of(half.data(), half.data() + half.size(), [](int value) { return value == 128; }));
}

TEST_F(FrameTest, APictureWiderThanTheImageGetsBordersAboveAndBelow) {
    const auto strip = makeFrame(GST_VIDEO_FORMAT_GRAY8, 640, 90);
    const KRBinary image = strip->getPixels(15, Space::Luma); // 640x180
    EXPECT_EQ(image.data()[20 * 640 + 320], 16);
    EXPECT_EQ(image.data()[90 * 640 + 320], 128);
    EXPECT_EQ(image.data()[160 * 640 + 320], 16);
}

TEST_F(FrameTest, OnlyTheWideResolutionsKeepTheProportionsOfThePicture) {
    const auto frame = makeFrame(GST_VIDEO_FORMAT_GRAY8, 640, 480);
    for (int resolution = 0; resolution <= 17; ++resolution) {
        const KRBinary image = frame->getPixels(resolution, Space::Luma);
        if (resolution < 13) {
            EXPECT_EQ(image.data()[0], 128) << resolution;
        } else {
            EXPECT_LT(image.data()[0], 20) << resolution;
        }
    }
}

} // namespace KR
