#include "krinterop/krimagemessage.hpp"

#include <krvision/krvisiondefinitions.hpp>

namespace {

using KR::KRCdrError;
using KR::KRImage;
using KR::KRImageMessage;
using Bytes = std::vector<unsigned char>;

KRImage makeImage(int width, int height, int colorSpace) {
    KRImage image(width, height, colorSpace, false, 0.5f, 0.25f, -0.5f, -0.25f);
    for (int i = 0; i < width * height * image.nbLayers; ++i) {
        image.data[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    image.timeStamp = 1500000000123456;
    image.cameraId = 1;
    return image;
}

Bytes pixelsOf(const KRImage& image) {
    return {image.data.get(), image.data.get() + image.width * image.height * image.nbLayers};
}

TEST(KRImageMessage, HasTheLayoutThatOtherToolsRead) {
    const Bytes expected = {0,    1,    0,    0,    // CDR, little-endian
                            0x00, 0x2f, 0x68, 0x59, // 1500000000 s
                            0x00, 0xca, 0x5b, 0x07, // 123456000 ns
                            9,    0,    0,    0,    'c', 'a', 'm', 'e', 'r', 'a',
                            '_',  '1',  0,    0,    0,   0,                     // frame, and padding
                            1,    0,    0,    0,                                // height
                            2,    0,    0,    0,                                // width
                            6,    0,    0,    0,    'm', 'o', 'n', 'o', '8', 0, // encoding
                            0,    0,                                            // not big-endian, and padding
                            2,    0,    0,    0,                                // step
                            2,    0,    0,    0,    3,   10};                   // pixels
    EXPECT_EQ(KR::encodeImage(makeImage(2, 1, KR::kLumaColorSpace)), expected);
}

TEST(KRImageMessage, OfACompressedImageNamesItsFormat) {
    const Bytes header = KR::encodeCompressedImageHeader(-1, 12, "jpeg");
    KR::KRCdrReader reader(header);
    EXPECT_EQ(reader.read<std::int32_t>(), -1) << "a microsecond before the epoch";
    EXPECT_EQ(reader.read<std::uint32_t>(), 999'999'000U);
    EXPECT_EQ(reader.readString(), "camera_12");
    EXPECT_EQ(reader.readString(), "jpeg");
    EXPECT_EQ(reader.readLength(1), 0U);
    EXPECT_EQ(reader.countBytesLeft(), 0U);
}

TEST(KRImageMessage, KeepsPixelsAndCaptureTimeInEveryColorSpace) {
    for (int colorSpace = 0; KR::isColorSpaceValid(colorSpace); ++colorSpace) {
        const KRImage image = makeImage(6, 4, colorSpace);
        const Bytes message = KR::encodeImage(image);
        KRImage read(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
        KR::readImage(KR::decodeImageMessage(message), read, colorSpace);
        EXPECT_EQ(read.width, 6);
        EXPECT_EQ(read.height, 4);
        EXPECT_EQ(read.colorSpace, colorSpace);
        EXPECT_EQ(read.nbLayers, image.nbLayers);
        EXPECT_EQ(read.timeStamp, image.timeStamp);
        EXPECT_EQ(read.cameraId, 1);
        EXPECT_EQ(pixelsOf(read), pixelsOf(image));
    }
}

TEST(KRImageMessage, NamesTheColorSpacesThatOtherToolsSupport) {
    EXPECT_EQ(KR::getImageEncoding(KR::kLumaColorSpace), "mono8");
    EXPECT_EQ(KR::getImageEncoding(KR::kYUV422ColorSpace), "yuv422_yuy2");
    EXPECT_EQ(KR::getImageEncoding(11), "rgb8");
    EXPECT_EQ(KR::getImageEncoding(13), "bgr8");
    EXPECT_EQ(KR::getImageEncoding(18), "bgra8");
    EXPECT_EQ(KR::getImageEncoding(10), "8UC3");
    EXPECT_EQ(KR::getImageEncoding(19), "8UC12");
    EXPECT_THROW(KR::getImageEncoding(27), std::invalid_argument);
    EXPECT_EQ(KR::findColorSpaceOfEncoding("yuyv"), KR::kYUV422ColorSpace);
    EXPECT_EQ(KR::findColorSpaceOfEncoding("8UC3"), std::nullopt);
}

TEST(KRImageMessage, ReadsRowsWithPadding) {
    KRImageMessage message;
    message.width = 2;
    message.height = 2;
    message.step = 4;
    message.encoding = "mono8";
    const Bytes pixels = {1, 2, 0, 0, 3, 4, 0, 0};
    message.pixels = pixels;
    KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
    KR::readImage(message, image);
    EXPECT_EQ(pixelsOf(image), (Bytes{1, 2, 3, 4}));
}

TEST(KRImageMessage, ReusesALargeEnoughUnsharedBuffer) {
    const Bytes message = KR::encodeImage(makeImage(6, 4, 13));
    KRImage image = makeImage(8, 8, 13);
    const unsigned char* buffer = image.data.get();
    KR::readImage(KR::decodeImageMessage(message), image);
    EXPECT_EQ(image.data.get(), buffer);
    const KRImage kept = image;
    KR::readImage(KR::decodeImageMessage(message), image);
    EXPECT_NE(image.data.get(), buffer);
}

TEST(KRImageMessage, RefusalsStateTheReason) {
    const auto refusal = [](const Bytes& bytes, int colorSpace = -1) -> std::string {
        KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
        try {
            KR::readImage(KR::decodeImageMessage(bytes), image, colorSpace);
            return {};
        } catch (const KRCdrError& error) {
            return error.what();
        }
    };
    const Bytes whole = KR::encodeImage(makeImage(2, 2, 10));
    EXPECT_EQ(refusal(whole, 10), "");
    EXPECT_THAT(refusal(whole), testing::HasSubstr("8UC3"));
    EXPECT_THAT(refusal(whole, 9), testing::HasSubstr("colour space 9"));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_NE(refusal(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)), 10), "");
    }
}

TEST(KRImageMessage, RefusesImagesWhoseBufferIsTooSmall) {
    KRImage image = makeImage(4, 4, 0);
    image.width = 8;
    EXPECT_THROW(KR::encodeImage(image), std::invalid_argument);
    image = KRImage(4, 4, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
    EXPECT_THROW(KR::encodeImage(image), std::invalid_argument);
}

TEST(KRImageMessage, KeepsTimesBefore1970) {
    KRImage image = makeImage(2, 2, 0);
    image.timeStamp = -1;
    const Bytes message = KR::encodeImage(image);
    const KRImageMessage decoded = KR::decodeImageMessage(message);
    EXPECT_EQ(decoded.seconds, -1);
    EXPECT_EQ(decoded.nanoseconds, 999'999'000u);
    KR::readImage(decoded, image);
    EXPECT_EQ(image.timeStamp, -1);
}

} // namespace
