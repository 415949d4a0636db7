#include "krvision/krimage.hpp"

#include "conversionformulas.hpp"
#include "everycolor.hpp"
#include "krconversionpath.hpp"
#include "krplatform/krlog.hpp"
#include "krvision/krvisiondefinitions.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <new>
#include <string>
#include <vector>

namespace {

using KR::KRImage;
using KR::KRLogRecord;
using KR::test::nameOf;
using KR::test::randomBytes;
using Bytes = std::vector<unsigned char>;

constexpr int kYuv422 = 9;
constexpr int kBgr = KR::kBgrColorSpace;
constexpr unsigned char kUntouched = 0xA5;

KRImage makeConvertible(int width, int height, int colorSpace = kYuv422, bool emptyBuffer = false) {
    return {width, height, colorSpace, emptyBuffer, 0.4f, 0.3f, -0.4f, -0.3f};
}

KRImage makeYuvImage(int width, int height, const Bytes& bytes) {
    KRImage image = makeConvertible(width, height);
    std::copy(bytes.begin(), bytes.end(), image.data.get());
    return image;
}

char* asChars(Bytes& bytes) {
    return reinterpret_cast<char*>(bytes.data());
}

class KRImageConversion : public testing::Test {
protected:
    // The errors logged since the last call, each as "category: message".
    std::vector<std::string> takeErrors() {
        KR::flushLog();
        return std::exchange(errors_, {});
    }

    const std::vector<std::string> kNothing = {};
    const std::vector<std::string> kNotYuv = {"vision.krimage: Input image is not a YUV422 image."};
    const std::vector<std::string> kNotCompatible = {"vision.krimage: External buffer not compatible."};

private:
    std::vector<std::string> errors_;
    const KR::KRLogListener listener_{[this](const KRLogRecord& record) {
        if (record.level == KR::KRLogLevel::Error) {
            errors_.push_back(record.category + ": " + record.message);
        }
    }};
};

// ---- from BGR

TEST_F(KRImageConversion, WhiteAndBlackBecomeTheEndsOfTheStudioRange) {
    KRImage image = makeConvertible(2, 2);
    Bytes bgr = {255, 255, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0};
    EXPECT_TRUE(image.computeYUV422imageFromBGR(2, 2, asChars(bgr)));
    EXPECT_EQ(Bytes(image.data.get(), image.data.get() + 8), (Bytes{235, 128, 235, 128, 16, 128, 16, 128}));
}

TEST_F(KRImageConversion, ChromaOfAPairComesFromItsFirstPixelAlone) {
    KRImage image = makeConvertible(4, 1);
    Bytes bgr = {10, 200, 30, 250, 0, 90, /**/ 10, 200, 30, 10, 200, 30};
    EXPECT_TRUE(image.computeYUV422imageFromBGR(1, 4, asChars(bgr)));
    EXPECT_EQ(image.data[1], image.data[5]);
    EXPECT_EQ(image.data[3], image.data[7]);
    EXPECT_NE(image.data[2], image.data[6]);
}

TEST_F(KRImageConversion, FromBgrTakesRowsBeforeColumns) {
    KRImage image = makeConvertible(1, 1, kBgr);
    Bytes bgr(3 * 6 * 4);
    EXPECT_TRUE(image.computeYUV422imageFromBGR(4, 6, asChars(bgr)));
    EXPECT_EQ(image.width, 6);
    EXPECT_EQ(image.height, 4);
}

TEST_F(KRImageConversion, FromBgrKeepsABufferOfTheRightShape) {
    KRImage image = makeConvertible(6, 4);
    image.colorSpace = 14; // any value
    const auto* data = image.data.get();
    Bytes bgr(3 * 6 * 4);
    EXPECT_TRUE(image.computeYUV422imageFromBGR(4, 6, asChars(bgr)));
    EXPECT_EQ(image.data.get(), data);
    EXPECT_EQ(image.colorSpace, 14);
    EXPECT_EQ(takeErrors(), kNothing);
}

TEST_F(KRImageConversion, FromBgrWritesToAnExternalBufferOfTheRightShape) {
    KRImage image = makeConvertible(2, 1, kYuv422, true);
    std::array<unsigned char, 4> pixels = {};
    image.data = KRImage::externalData(pixels.data());
    Bytes bgr(6, 255);
    EXPECT_TRUE(image.computeYUV422imageFromBGR(1, 2, asChars(bgr)));
    EXPECT_EQ(pixels, (std::array<unsigned char, 4>{235, 128, 235, 128}));
}

TEST_F(KRImageConversion, FromBgrReshapesAnImageThatOwnsItsBuffer) {
    KRImage image = makeConvertible(0, 0, 2);
    const KRImage copy(image);
    const int allocatedSize = image.allocatedSize;
    Bytes bgr = randomBytes(3 * 8 * 5, 1);
    EXPECT_TRUE(image.computeYUV422imageFromBGR(5, 8, asChars(bgr)));
    EXPECT_EQ(image.width, 8);
    EXPECT_EQ(image.height, 5);
    EXPECT_EQ(image.nbLayers, 2);
    EXPECT_TRUE(image.ownsData());
    EXPECT_NE(image.data.get(), copy.data.get());
    EXPECT_EQ(copy.data.use_count(), 1);
    // These are left to the caller.
    EXPECT_EQ(image.colorSpace, 2);
    EXPECT_EQ(image.allocatedSize, allocatedSize);
    EXPECT_EQ(image.allocatedResolution, -1);
    EXPECT_EQ(image.allocatedLayers, 1);
}

TEST_F(KRImageConversion, FromBgrReshapesForEachOfWidthHeightAndLayers) {
    Bytes bgr(3 * 8 * 4);
    for (KRImage image : {makeConvertible(6, 4), makeConvertible(8, 2), makeConvertible(8, 4, kBgr)}) {
        const auto* data = image.data.get();
        EXPECT_TRUE(image.computeYUV422imageFromBGR(4, 8, asChars(bgr)));
        EXPECT_NE(image.data.get(), data);
        EXPECT_EQ(image.nbLayers, 2);
    }
}

TEST_F(KRImageConversion, FromBgrRefusesAnExternalBufferOfTheWrongShape) {
    KRImage image = makeConvertible(4, 1, kYuv422, true);
    std::array<unsigned char, 8> pixels;
    pixels.fill(kUntouched);
    image.data = KRImage::externalData(pixels.data());
    Bytes bgr(6);
    EXPECT_FALSE(image.computeYUV422imageFromBGR(1, 2, asChars(bgr)));
    EXPECT_EQ(takeErrors(), kNotCompatible);
    EXPECT_EQ(image.width, 4);
    EXPECT_EQ(image.data.get(), pixels.data());
    EXPECT_EQ(std::count(pixels.begin(), pixels.end(), kUntouched), 8);
}

TEST_F(KRImageConversion, FromBgrRefusesAnImageWithoutBuffer) {
    Bytes bgr(6);
    KRImage other = makeConvertible(4, 1, kYuv422, true);
    EXPECT_FALSE(other.computeYUV422imageFromBGR(1, 2, asChars(bgr)));
    EXPECT_EQ(takeErrors(), kNotCompatible);
    EXPECT_EQ(other.width, 4);
    KRImage same = makeConvertible(2, 1, kYuv422, true);
    EXPECT_FALSE(same.computeYUV422imageFromBGR(1, 2, asChars(bgr)));
    EXPECT_EQ(takeErrors(), kNotCompatible);
}

TEST_F(KRImageConversion, FromBgrWithANegativeSizeChangesNothing) {
    KRImage image = makeConvertible(4, 1);
    const auto* data = image.data.get();
    EXPECT_THROW(image.computeYUV422imageFromBGR(-1, 2, nullptr), std::bad_alloc);
    EXPECT_EQ(image.width, 4);
    EXPECT_EQ(image.data.get(), data);
}

// ---- from YUV422

TEST_F(KRImageConversion, StudioBlackAndWhiteBecomeBlackAndAlmostWhite) {
    const KRImage image = makeYuvImage(2, 1, {16, 128, 235, 128});
    Bytes bgr(6, kUntouched);
    EXPECT_TRUE(image.computeBGRimageFromYUV422(bgr.data()));
    EXPECT_EQ(bgr, (Bytes{0, 0, 0, 254, 254, 254}));
}

TEST_F(KRImageConversion, GreenWeighsUTwiceAsMuchAsV) {
    const KRImage image = makeYuvImage(4, 1, {128, 138, 128, 128, 128, 128, 128, 138});
    Bytes bgr(12);
    EXPECT_TRUE(image.computeBGRimageFromYUV422(bgr.data()));
    EXPECT_EQ(bgr[1], (298 * 112 - 2080) >> 8);
    EXPECT_EQ(bgr[7], (298 * 112 - 1000) >> 8);
}

TEST_F(KRImageConversion, PlanesFollowEachOther) {
    const KRImage image = makeYuvImage(2, 2, {1, 2, 3, 4, 5, 6, 7, 8});
    Bytes out444(12);
    EXPECT_TRUE(image.computeYYYUUUVVVimageFromYUV422(out444.data()));
    EXPECT_EQ(out444, (Bytes{1, 3, 5, 7, 2, 2, 6, 6, 4, 4, 8, 8}));
    Bytes out422(8);
    EXPECT_TRUE(image.computeYYYYUUVVimageFromYUV422(out422.data()));
    EXPECT_EQ(out422, (Bytes{1, 3, 5, 7, 2, 6, 4, 8}));
}

TEST_F(KRImageConversion, RefusesAnImageThatIsNotYuv422) {
    KRImage image = makeConvertible(4, 2, kBgr);
    Bytes out(24, kUntouched);
    EXPECT_FALSE(image.computeBGRimageFromYUV422(out.data()));
    EXPECT_EQ(takeErrors(), kNotYuv);
    EXPECT_FALSE(image.computeYYYUUUVVVimageFromYUV422(out.data()));
    EXPECT_EQ(takeErrors(), kNotYuv);
    EXPECT_FALSE(image.computeYYYYUUVVimageFromYUV422(out.data()));
    EXPECT_EQ(takeErrors(), kNotYuv);
    EXPECT_EQ(std::count(out.begin(), out.end(), kUntouched), 24);
}

TEST_F(KRImageConversion, WithoutPixelsReturnsAtOnce) {
    for (KRImage image : {makeConvertible(0, 0), makeConvertible(0, 4), makeConvertible(4, 0),
                          makeConvertible(0, 0, kYuv422, true)}) {
        Bytes out(4, kUntouched);
        EXPECT_TRUE(image.computeBGRimageFromYUV422(out.data()));
        EXPECT_TRUE(image.computeYYYUUUVVVimageFromYUV422(out.data()));
        EXPECT_TRUE(image.computeYYYYUUVVimageFromYUV422(out.data()));
        EXPECT_TRUE(image.computeYUV422imageFromBGR(image.height, image.width, nullptr));
        EXPECT_EQ(out, Bytes(4, kUntouched));
    }
    EXPECT_EQ(takeErrors(), kNothing);
}

TEST_F(KRImageConversion, WithANegativeNumberOfPixelsWritesNothing) {
    const KRImage image = makeConvertible(-4, 2, kYuv422, true);
    Bytes out(4, kUntouched);
    EXPECT_TRUE(image.computeBGRimageFromYUV422(out.data()));
    EXPECT_TRUE(image.computeYYYUUUVVVimageFromYUV422(out.data()));
    EXPECT_TRUE(image.computeYYYYUUVVimageFromYUV422(out.data()));
    EXPECT_EQ(out, Bytes(4, kUntouched));
}

// ---- whole frames, on every path of the processor

class KRImageConversionOnPath : public testing::TestWithParam<const KR::ConversionPath*> {
protected:
    void SetUp() override { KR::forceConversionPath(GetParam()); }
    void TearDown() override { KR::forceConversionPath(nullptr); }
};

INSTANTIATE_TEST_SUITE_P(Forced, KRImageConversionOnPath, testing::ValuesIn(KR::conversionPaths()), nameOf);

struct Size {
    int width, height;
};

// With odd widths, pairs span the ends of rows; with odd numbers of pixels, the last one has no partner.
const Size kSizes[] = {{1, 1},     {2, 1},     {3, 1},     {1, 2},    {5, 3},   {16, 2},
                       {17, 2},    {31, 3},    {33, 33},   {64, 48},  {99, 77}, {161, 20},
                       {160, 120}, {320, 240}, {639, 479}, {640, 480}};

TEST_P(KRImageConversionOnPath, FromBgrConvertsEveryFullPairOfAFrame) {
    for (const auto [width, height] : kSizes) {
        const auto pixels = static_cast<std::size_t>(width * height);
        Bytes bgr = randomBytes(3 * pixels, static_cast<unsigned>(width));
        KRImage image = makeConvertible(width, height);
        std::fill_n(image.data.get(), 2 * pixels, kUntouched);
        ASSERT_TRUE(image.computeYUV422imageFromBGR(height, width, asChars(bgr)));
        Bytes expected(2 * pixels, kUntouched);
        for (std::size_t pair = 0; pair < pixels / 2; ++pair) {
            formulas::BgrPair in;
            std::copy_n(&bgr[6 * pair], 6, in.begin());
            const auto out = formulas::yuv422FromBgr(in);
            std::copy(out.begin(), out.end(), &expected[4 * pair]);
        }
        EXPECT_EQ(Bytes(image.data.get(), image.data.get() + 2 * pixels), expected) << width << "x" << height;
    }
}

TEST_P(KRImageConversionOnPath, FromYuv422ConvertsEveryFullPairOfAFrame) {
    for (const auto [width, height] : kSizes) {
        const auto pixels = static_cast<std::size_t>(width * height);
        const Bytes yuv = randomBytes(2 * pixels, static_cast<unsigned>(width));
        const KRImage image = makeYuvImage(width, height, yuv);
        Bytes bgr(3 * pixels, kUntouched), planes444(3 * pixels, kUntouched),
            planes422(2 * pixels, kUntouched);
        ASSERT_TRUE(image.computeBGRimageFromYUV422(bgr.data()));
        ASSERT_TRUE(image.computeYYYUUUVVVimageFromYUV422(planes444.data()));
        ASSERT_TRUE(image.computeYYYYUUVVimageFromYUV422(planes422.data()));
        Bytes expectedBgr(3 * pixels, kUntouched), expected444(3 * pixels, kUntouched),
            expected422(2 * pixels, kUntouched);
        for (std::size_t pair = 0; pair < pixels / 2; ++pair) {
            formulas::Yuv422Pair in;
            std::copy_n(&yuv[4 * pair], 4, in.begin());
            const auto out = formulas::bgrFromYuv422(in);
            std::copy(out.begin(), out.end(), &expectedBgr[6 * pair]);
            for (std::size_t i : {2 * pair, 2 * pair + 1}) {
                expected444[i] = expected422[i] = in[i % 2 * 2];
                expected444[pixels + i] = in[1];
                expected444[2 * pixels + i] = in[3];
            }
            expected422[pixels + pair] = in[1];
            expected422[pixels + pixels / 2 + pair] = in[3];
        }
        EXPECT_EQ(bgr, expectedBgr) << width << "x" << height;
        EXPECT_EQ(planes444, expected444) << width << "x" << height;
        EXPECT_EQ(planes422, expected422) << width << "x" << height;
    }
}

} // namespace
