#include "krvision/krannotations.hpp"

#include "krplatform/krerror.hpp"
#include "krvision/krimage.hpp"
#include "krvision/krvisiondefinitions.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace KR {
namespace {

using testing::AllOf;
using testing::HasSubstr;

KRAnnotations makeAnnotations() {
    KRAnnotations annotations;
    annotations.camera = 1;
    annotations.timeStamp = 1700000000123456;
    annotations.boxes = {{0.1F, 0.2F, 0.5F, 0.75F, "person", 0.5F, 7}, {-0.5F, 0, 0, 1.5F, "", 1, -1}};
    annotations.points = {{0.25F, 0.5F}};
    annotations.polylines = {{{{0, 0}, {1, 1}}, false}, {{{0, 0}, {1, 0}, {1, 1}}, true}};
    annotations.texts = {{{0.5F, 0.5F}, "left"}};
    return annotations;
}

KRImage makeCanvas(int width, int height, int colorSpace) {
    return KRImage(width, height, colorSpace, false, 0, 0, 0, 0);
}

std::string refusalOf(const KRValue& value) {
    try {
        KRAnnotations::fromKRValue(value);
        return "nothing";
    } catch (const KRError& error) {
        return error.getDescription();
    }
}

std::vector<int> getPixel(const KRImage& image, int x, int y) {
    const unsigned char* pixel = image.data.get() + (y * image.width + x) * image.nbLayers;
    return {pixel, pixel + image.nbLayers};
}

std::size_t countChangedBytes(const KRImage& image) {
    const unsigned char* bytes = image.data.get();
    return static_cast<std::size_t>(image.allocatedSize - std::count(bytes, bytes + image.allocatedSize, 0));
}

TEST(KRAnnotations, SurviveTheRoundTripThroughAValue) {
    const KRAnnotations annotations = makeAnnotations();
    EXPECT_EQ(KRAnnotations::fromKRValue(annotations.toKRValue()), annotations);
    EXPECT_EQ(KRAnnotations::fromKRValue(KRAnnotations().toKRValue()), KRAnnotations());
}

TEST(KRAnnotations, TakeCameraAndTimeStampFromTheirImage) {
    KRImage image = makeCanvas(4, 4, kLumaColorSpace);
    image.cameraId = 3;
    image.timeStamp = 42;
    const KRAnnotations annotations(image);
    EXPECT_EQ(annotations.camera, 3);
    EXPECT_EQ(annotations.timeStamp, 42);
}

TEST(KRAnnotations, ElementsOfLaterVersionsAreIgnored) {
    KRValue value = makeAnnotations().toKRValue();
    value.arraySetSize(9);
    value[8] = "more";
    value[4][0].arraySetSize(8);
    EXPECT_EQ(KRAnnotations::fromKRValue(value), makeAnnotations());
}

TEST(KRAnnotations, AMalformedValueIsRefusedNamingTheElement) {
    EXPECT_THAT(refusalOf(KRValue(1)), HasSubstr("not an array of at least 8"));
    EXPECT_THAT(refusalOf(KRValue::array(1, 2)), HasSubstr("not an array of at least 8"));
    const auto change = [](auto edit) {
        KRValue value = makeAnnotations().toKRValue();
        edit(value);
        return refusalOf(value);
    };
    EXPECT_THAT(change([](KRValue& v) { v[0] = 2; }), HasSubstr("version 2; version 1 is supported"));
    EXPECT_THAT(change([](KRValue& v) { v[4][1][2] = -0.75F; }), HasSubstr("box 1 has its right edge"));
    EXPECT_THAT(change([](KRValue& v) { v[4][0][3] = 0.1F; }), HasSubstr("box 0 has its right edge"));
    EXPECT_THAT(change([](KRValue& v) { v[4][1][4] = 5; }), AllOf(HasSubstr("box 1"), HasSubstr("string")));
    EXPECT_THAT(change([](KRValue& v) { v[4][0].arraySetSize(6); }), HasSubstr("box 0"));
    EXPECT_THAT(change([](KRValue& v) { v[4][0][5] = std::numeric_limits<float>::quiet_NaN(); }),
                HasSubstr("box 0, element 5, is not a finite number"));
    EXPECT_THAT(change([](KRValue& v) { v[5][0][1] = std::numeric_limits<float>::infinity(); }),
                HasSubstr("point 0, element 1"));
    EXPECT_THAT(change([](KRValue& v) { v[6][1].arraySetSize(3); }), HasSubstr("polyline 1 has 3 elements"));
    EXPECT_THAT(change([](KRValue& v) { v[6][0].arraySetSize(6); }), HasSubstr("polyline 0 has 6 elements"));
    EXPECT_THAT(change([](KRValue& v) { v[7] = "text"; }), HasSubstr("array"));
}

TEST(KRAnnotationsDrawing, ABoxIsDrawnAtItsCoordinatesInEverySize) {
    for (const auto& [width, height] : {std::pair(160, 120), std::pair(640, 480)}) {
        KRImage image = makeCanvas(width, height, kRgbColorSpace);
        KRAnnotations annotations;
        annotations.boxes = {{0.25F, 0.25F, 0.75F, 0.75F, "", 1, -1}};
        drawAnnotations(image, annotations);
        const std::vector<int> orange{255, 128, 0};
        const std::vector<int> black{0, 0, 0};
        EXPECT_EQ(getPixel(image, width / 4, height / 2), orange);
        EXPECT_EQ(getPixel(image, width * 3 / 4 - 1, height / 2), orange);
        EXPECT_EQ(getPixel(image, width / 2, height / 4), orange);
        EXPECT_EQ(getPixel(image, width / 2, height * 3 / 4 - 1), orange);
        EXPECT_EQ(getPixel(image, width / 2, height / 2), black) << "the inside stays";
        EXPECT_EQ(getPixel(image, width / 4 - 1, height / 2), black) << "the outside stays";
        EXPECT_EQ(getPixel(image, width * 3 / 4, height / 2), black);
    }
}

TEST(KRAnnotationsDrawing, EveryColorSpaceGetsItsOwnOrange) {
    const std::vector<std::pair<int, std::vector<int>>> expected = {{kLumaColorSpace, {146}},
                                                                    {kYUV422ColorSpace, {146, 53}},
                                                                    {kRgbColorSpace, {255, 128, 0}},
                                                                    {kBgrColorSpace, {0, 128, 255}},
                                                                    {kBgrxColorSpace, {0, 128, 255, 255}}};
    for (const auto& [colorSpace, pixel] : expected) {
        KRImage image = makeCanvas(64, 64, colorSpace);
        KRAnnotations annotations;
        annotations.boxes = {{0, 0, 1, 1, "", 1, -1}};
        drawAnnotations(image, annotations);
        EXPECT_EQ(getPixel(image, 0, 32), pixel) << "colour space " << colorSpace;
    }
}

TEST(KRAnnotationsDrawing, PointsLinesAndTextsAreDrawn) {
    KRImage image = makeCanvas(100, 100, kBgrColorSpace);
    KRAnnotations annotations;
    annotations.points = {{0.2F, 0.2F}};
    annotations.polylines = {{{{0.5F, 0.5F}, {0.9F, 0.5F}, {0.9F, 0.9F}}, true}};
    annotations.texts = {{{0.1F, 0.6F}, "I"}};
    drawAnnotations(image, annotations);
    const std::vector<int> line{255, 192, 0};
    EXPECT_EQ(getPixel(image, 20, 20), (std::vector<int>{0, 255, 0}));
    EXPECT_EQ(getPixel(image, 17, 20), (std::vector<int>{0, 255, 0}));
    EXPECT_EQ(getPixel(image, 70, 50), line);
    EXPECT_EQ(getPixel(image, 90, 70), line);
    EXPECT_EQ(getPixel(image, 70, 70), line) << "a closed line returns to its start";
    EXPECT_EQ(getPixel(image, 13, 64), (std::vector<int>{255, 255, 255})) << "the stem of the I";
}

TEST(KRAnnotationsDrawing, DrawingIsClippedInEverySize) {
    const float huge = std::numeric_limits<float>::max();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    KRAnnotations annotations;
    annotations.boxes = {{-huge, -huge, huge, huge, std::string(100000, 'x'), nan, 1},
                         {2, 2, 3, 3, "outside", 1, -1},
                         {nan, nan, nan, nan, "nowhere", 1, -1}};
    annotations.points = {{-1, -1}, {1, 1}, {nan, huge}};
    annotations.polylines = {{{{-huge, 0.5F}, {huge, 0.5F}, {nan, nan}}, true}, {{}, true}, {{{0, 0}}, true}};
    annotations.texts = {{{0.99F, 0.99F}, "cut"}, {{-huge, huge}, "far"}, {{0, 0}, "\xC3\xA4\xFF\x1B"}};
    for (int width = 1; width <= 9; ++width) {
        for (const int colorSpace : {kLumaColorSpace, kYUV422ColorSpace, kBgrxColorSpace}) {
            KRImage image = makeCanvas(width, 3, colorSpace); // odd numbers of pixels among them
            drawAnnotations(image, annotations);
            EXPECT_GT(countChangedBytes(image), 0U);
        }
    }
}

TEST(KRAnnotationsDrawing, AnUnsuitableImageIsRefusedUnchanged) {
    KRImage planes = makeCanvas(8, 8, 10);
    EXPECT_THROW(drawAnnotations(planes, makeAnnotations()), KRError);
    EXPECT_EQ(countChangedBytes(planes), 0U);
    KRImage withoutPixels(8, 8, kLumaColorSpace, true, 0, 0, 0, 0);
    EXPECT_THROW(drawAnnotations(withoutPixels, makeAnnotations()), KRError);
    KRImage tooSmall = makeCanvas(8, 8, kLumaColorSpace);
    tooSmall.height = 9;
    EXPECT_THROW(drawAnnotations(tooSmall, makeAnnotations()), KRError);
    KRImage negative = makeCanvas(8, 8, kLumaColorSpace);
    negative.width = -8;
    EXPECT_THROW(drawAnnotations(negative, makeAnnotations()), KRError);
}

} // namespace
} // namespace KR
