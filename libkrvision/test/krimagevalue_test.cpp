#include "krvision/krimage.hpp"

#include "krplatform/krlog.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using KR::KRBinary;
using KR::KRImage;
using KR::KRLogRecord;
using KR::KRValue;
using testing::StrEq;
using testing::ThrowsMessage;

constexpr int kLargest = std::numeric_limits<int>::max();

KRImage makeSource(int width, int height, int colorSpace, bool emptyBuffer = false) {
    return {width, height, colorSpace, emptyBuffer, 0.4f, 0.3f, -0.4f, -0.3f};
}

KRBinary makePixels(std::size_t size) {
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    }
    return KRBinary::copyOf(bytes.data(), size);
}

// An image value of 4x2 pixels whose layers and colour space may disagree.
KRValue makeValue(int layers, int colorSpace, std::size_t pixelBytes) {
    return KRValue::array(4, 2, layers, colorSpace, 12, 34, makePixels(pixelBytes), 1, 0.4f, 0.3f, -0.4f,
                          -0.3f);
}

std::unique_ptr<KRImage> fromValue(const KRValue& value) {
    return std::unique_ptr<KRImage>(KRImage::fromKRValue(value));
}

TEST(KRImageValue, HoldsTheImageInTwelveElements) {
    KRImage image = makeSource(160, 120, 9);
    for (int i = 0; i < 38400; ++i) {
        image.data[i] = static_cast<unsigned char>(i % 251);
    }
    image.timeStamp = 1500000000123456;
    image.cameraId = 1;
    const KRValue value = image.toKRValue();
    ASSERT_TRUE(value.isArray());
    ASSERT_EQ(value.getSize(), 12u);
    EXPECT_EQ(value[0].to<int>(), 160);
    EXPECT_EQ(value[1].to<int>(), 120);
    EXPECT_EQ(value[2].to<int>(), 2);
    EXPECT_EQ(value[3].to<int>(), 9);
    EXPECT_EQ(value[4].to<int>(), 1500000000);
    EXPECT_EQ(value[5].to<int>(), 123456);
    ASSERT_EQ(value[6].GetBinary().size(), 38400u);
    EXPECT_EQ(std::memcmp(value[6].GetBinary().data(), image.data.get(), 38400), 0);
    EXPECT_EQ(value[7].to<int>(), 1);
    EXPECT_TRUE(value[8].isFloat());
    EXPECT_EQ(value[8].to<float>(), 0.4f);
    EXPECT_EQ(value[9].to<float>(), 0.3f);
    EXPECT_EQ(value[10].to<float>(), -0.4f);
    EXPECT_EQ(value[11].to<float>(), -0.3f);
    for (const std::size_t i : {0u, 1u, 2u, 3u, 4u, 5u, 7u}) {
        EXPECT_TRUE(value[i].isInt()) << "element " << i;
    }
}

TEST(KRImageValue, HoldsACopyOfThePixels) {
    KRImage image = makeSource(4, 2, 9);
    const KRValue value = image.toKRValue();
    image.data[0] = 200;
    EXPECT_EQ(value[6].GetBinary().data()[0], 0);
}

TEST(KRImageValue, HoldsThePixelsOfTheCurrentGeometryNotTheWholeBuffer) {
    KRImage image(2, 9, false, 0, 0, 0, 0);
    image.setResolution(0);
    EXPECT_EQ(image.toKRValue()[6].GetBinary().size(), 160u * 120u * 2u);
}

TEST(KRImageValue, WithoutPixelsHasAnEmptyBinary) {
    const KRValue value = makeSource(0, 0, 9).toKRValue();
    EXPECT_EQ(value[6].GetBinary().size(), 0u);
    const auto image = fromValue(value);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 0);
}

TEST(KRImageValue, OfAnImageWithANegativeSizeIsNotAllocated) {
    EXPECT_THROW(makeSource(-1, 10, 9, true).toKRValue(), std::bad_alloc);
}

TEST(KRImageValue, SignExtendsTheCamera) {
    KRImage image = makeSource(4, 2, 9);
    image.cameraId = -2;
    EXPECT_EQ(image.toKRValue()[7].to<int>(), -2);
    EXPECT_EQ(fromValue(image.toKRValue())->cameraId, -2);
}

TEST(KRImageValue, TakesTheLowEightBitsOfTheCamera) {
    KRValue value = makeValue(2, 9, 16);
    value[7] = 0x1FE;
    EXPECT_EQ(fromValue(value)->cameraId, -2);
}

TEST(KRImageValue, OfAnUnsetTimeStampHasMicrosecondsMinusOne) {
    const KRValue value = makeSource(4, 2, 9).toKRValue();
    EXPECT_EQ(value[4].to<int>(), 0);
    EXPECT_EQ(value[5].to<int>(), -1);
    EXPECT_EQ(fromValue(value)->timeStamp, -1);
}

TEST(KRImageValue, RoundTripKeepsTimeStampsWhoseSecondsFitAnInt) {
    const std::int64_t maxSeconds = kLargest;
    for (const std::int64_t timeStamp :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1}, std::int64_t{999999}, std::int64_t{1000000},
          std::int64_t{-1000001}, std::int64_t{1500000000123456}, maxSeconds * 1000000 + 999999,
          (-maxSeconds - 1) * 1000000 - 999999}) {
        KRImage image = makeSource(4, 2, 9);
        image.timeStamp = timeStamp;
        EXPECT_EQ(fromValue(image.toKRValue())->timeStamp, timeStamp);
    }
}

TEST(KRImageValue, RoundTripKeepsTheImage) {
    KRImage image = makeSource(100, 30, 13);
    for (int i = 0; i < image.allocatedSize; ++i) {
        image.data[i] = static_cast<unsigned char>(i * 31);
    }
    image.timeStamp = 5;
    image.cameraId = 3;
    const auto copy = fromValue(image.toKRValue());
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->width, 100);
    EXPECT_EQ(copy->height, 30);
    EXPECT_EQ(copy->nbLayers, 3);
    EXPECT_EQ(copy->colorSpace, 13);
    EXPECT_EQ(copy->timeStamp, 5);
    EXPECT_EQ(copy->cameraId, 3);
    EXPECT_EQ(copy->leftAngle, 0.4f);
    EXPECT_EQ(copy->topAngle, 0.3f);
    EXPECT_EQ(copy->rightAngle, -0.4f);
    EXPECT_EQ(copy->bottomAngle, -0.3f);
    EXPECT_EQ(copy->allocatedSize, 9000);
    EXPECT_EQ(copy->allocatedResolution, -1);
    EXPECT_EQ(copy->allocatedLayers, 3);
    EXPECT_TRUE(copy->rois.empty());
    EXPECT_FALSE(copy->extraFlag);
    EXPECT_TRUE(copy->ownsData());
    EXPECT_EQ(std::memcmp(copy->data.get(), image.data.get(), 9000), 0);
}

TEST(KRImageValue, SharesNoPixelsWithTheImageMadeFromIt) {
    const KRValue value = makeValue(2, 9, 16);
    const auto image = fromValue(value);
    image->data[0] = static_cast<unsigned char>(image->data[0] + 1);
    EXPECT_EQ(value[6].GetBinary().data()[0], 1);
}

TEST(KRImageValue, ThatIsNotAnImageGivesNullAndOneLogLine) {
    std::vector<KRLogRecord> records;
    const KR::KRLogListener listener([&records](const KRLogRecord& record) { records.push_back(record); });
    KRValue tooShort = makeValue(2, 9, 16);
    tooShort.arraySetSize(11);
    std::size_t logged = 0;
    for (const KRValue& value : {tooShort, KRValue("an image"), KRValue(), KRValue(5), KRValue::array()}) {
        EXPECT_EQ(KRImage::fromKRValue(value), nullptr);
        EXPECT_TRUE(KR::flushLog());
        ASSERT_EQ(records.size(), ++logged);
        EXPECT_EQ(records.back().level, KR::KRLogLevel::Error);
        EXPECT_EQ(records.back().category, "KRImage");
        EXPECT_EQ(records.back().message, "KRValue is not an image, cannot convert");
    }
}

TEST(KRImageValue, WithMoreThanTwelveElementsConverts) {
    KRValue value = makeValue(2, 9, 16);
    value.arraySetSize(13);
    value[12] = "ignored";
    const auto image = fromValue(value);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width, 4);
    EXPECT_EQ(image->timeStamp, 12000034);
}

TEST(KRImageValue, WithAnInvalidColorSpaceIsRefusedByTheConstructor) {
    for (const int colorSpace : {27, -1}) {
        EXPECT_THAT([&] { KRImage::fromKRValue(makeValue(2, colorSpace, 16)); },
                    ThrowsMessage<std::invalid_argument>(StrEq("KRImage: invalid colorspace")));
    }
}

TEST(KRImageValue, WithANegativeWidthIsNotAllocated) {
    KRValue value = makeValue(2, 9, 16);
    value[0] = -4;
    EXPECT_THROW(KRImage::fromKRValue(value), std::bad_alloc);
}

TEST(KRImageValue, WithAnElementOfTheWrongTypeThrowsAValueError) {
    for (std::size_t element = 0; element < 12; ++element) {
        KRValue value = makeValue(2, 9, 16);
        value[element] = "text";
        EXPECT_THROW(KRImage::fromKRValue(value), KR::KRError) << "element " << element;
    }
}

TEST(KRImageValue, AnglesMayBeInts) {
    KRValue value = makeValue(2, 9, 16);
    value[8] = 2;
    EXPECT_EQ(fromValue(value)->leftAngle, 2.0f);
}

// The byte count comes from the value, not from the colour space: deliberate.
TEST(KRImageValue, WithFewerLayersThanItsColorSpaceIsPaddedWithZeros) {
    const auto image = fromValue(makeValue(1, 13, 8));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->nbLayers, 3);
    EXPECT_EQ(image->allocatedSize, 24);
    EXPECT_EQ(std::memcmp(image->data.get(), makePixels(8).data(), 8), 0);
    EXPECT_TRUE(
        std::all_of(image->data.get() + 8, image->data.get() + 24, [](auto byte) { return byte == 0; }));
}

TEST(KRImageValue, WithoutLayersIsAllZeros) {
    for (const int layers : {0, -2}) {
        const auto image = fromValue(makeValue(layers, 9, 0));
        ASSERT_TRUE(image);
        EXPECT_TRUE(
            std::all_of(image->data.get(), image->data.get() + 16, [](auto byte) { return byte == 0; }));
    }
}

TEST(KRImageValue, MayCarryMorePixelsThanItsGeometryNeeds) {
    const auto image = fromValue(makeValue(2, 9, 1000));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->allocatedSize, 16);
    EXPECT_EQ(std::memcmp(image->data.get(), makePixels(1000).data(), 16), 0);
}

// ---- toString

std::string asPointer(const void* pointer) {
    std::ostringstream out;
    out << pointer;
    return out.str();
}

TEST(KRImageToString, ShowsEveryFieldOnItsLine) {
    KRImage image(2, 9, false, 0.4169222f, 0.5f, -0.4169222f, -2.0f);
    image.timeStamp = 1500000000123456;
    image.cameraId = 65;
    const unsigned char firstBytes[16] = {0x78, 0x56, 0x34, 0x12, 0xFF, 0xFF, 0xFF, 0xFF,
                                          0x0A, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80};
    std::memcpy(image.data.get(), firstBytes, sizeof firstBytes);
    EXPECT_EQ(image.toString(), "this          : " + asPointer(&image) +
                                    "\n"
                                    "Width         : 640\n"
                                    "Height        : 480\n"
                                    "NbLayers      : 2\n"
                                    "ColorSpace    : 9\n"
                                    "TimeStamp     : 1500000000123456\n"
                                    "CameraID      : A\n"
                                    "Left angle    : 0.416922\n"
                                    "Top angle     : 0.5\n"
                                    "Right angle   : -0.416922\n"
                                    "Bottom angle  : -2\n"
                                    "Frame         : " +
                                    asPointer(image.data.get()) +
                                    "FirstPixel    : 12345678 ffffffff a 80000000\n"
                                    "AllocatedSize : 614400");
}

TEST(KRImageToString, ShowsTheCameraAsARawCharacter) {
    const KRImage image(0, 9, false, 0, 0, 0, 0);
    using namespace std::string_literals;
    EXPECT_NE(image.toString().find("CameraID      : \0\n"s), std::string::npos);
}

TEST(KRImageToString, HasThirteenLinesTheLastWithoutNewline) {
    const std::string text = KRImage(2, 9, false, 0, 0, 0, 0).toString();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 12);
    EXPECT_TRUE(text.ends_with("AllocatedSize : 614400"));
}

} // namespace
