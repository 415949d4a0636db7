#include "krvision/krimage.hpp"

#include "krvision/krvisiondefinitions.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

using KR::KRImage;
using testing::StrEq;
using testing::ThrowsMessage;

constexpr int kIntMax = std::numeric_limits<int>::max();

KRImage makeImage(int resolution, int colorSpace, bool emptyBuffer = false) {
    return {resolution, colorSpace, emptyBuffer, 0.4f, 0.3f, -0.4f, -0.3f};
}

KRImage makeImage(int width, int height, int colorSpace, bool emptyBuffer) {
    return {width, height, colorSpace, emptyBuffer, 0.4f, 0.3f, -0.4f, -0.3f};
}

// What a refused resize must leave unchanged.
struct Shape {
    int width, height, nbLayers, colorSpace, allocatedSize, allocatedResolution, allocatedLayers;
    const unsigned char* data;

    explicit Shape(const KRImage& image)
        : width(image.width), height(image.height), nbLayers(image.nbLayers), colorSpace(image.colorSpace),
          allocatedSize(image.allocatedSize), allocatedResolution(image.allocatedResolution),
          allocatedLayers(image.allocatedLayers), data(image.data.get()) {}
    bool operator==(const Shape&) const = default;
};

// ---- regions of interest

TEST(KRImageROI, ARectangleAloneHasAnglesOfZero) {
    const KRImage::ROI roi(1, 2, 3, 4);
    EXPECT_EQ(roi.x, 1);
    EXPECT_EQ(roi.y, 2);
    EXPECT_EQ(roi.w, 3);
    EXPECT_EQ(roi.h, 4);
    EXPECT_EQ(roi.leftAngle, 0.0f);
    EXPECT_EQ(roi.topAngle, 0.0f);
    EXPECT_EQ(roi.rightAngle, 0.0f);
    EXPECT_EQ(roi.bottomAngle, 0.0f);
}

TEST(KRImageROI, TakesItsAnglesInTheOrderLeftTopRightBottom) {
    const KRImage::ROI roi(1, 2, 3, 4, 0.5f, 0.25f, -0.5f, -0.25f);
    EXPECT_EQ(roi.x, 1);
    EXPECT_EQ(roi.h, 4);
    EXPECT_EQ(roi.leftAngle, 0.5f);
    EXPECT_EQ(roi.topAngle, 0.25f);
    EXPECT_EQ(roi.rightAngle, -0.5f);
    EXPECT_EQ(roi.bottomAngle, -0.25f);
}

// ---- buffer handles

TEST(KRImageData, EmptyExternalDataIsANullPointer) {
    const auto data = KRImage::emptyData(true);
    EXPECT_EQ(data.get(), nullptr);
    ASSERT_NE(boost::get_deleter<KRImage::deleter>(data), nullptr);
    EXPECT_TRUE(boost::get_deleter<KRImage::deleter>(data)->external);
}

TEST(KRImageData, EmptyOwnedDataIsABufferOfNoBytes) {
    const auto data = KRImage::emptyData(false);
    EXPECT_NE(data.get(), nullptr);
    ASSERT_NE(boost::get_deleter<KRImage::deleter>(data), nullptr);
    EXPECT_FALSE(boost::get_deleter<KRImage::deleter>(data)->external);
}

TEST(KRImageData, InternalDataIsOwned) {
    const auto zeros = KRImage::internalDataZeroInitialized(1000);
    EXPECT_TRUE(std::all_of(zeros.get(), zeros.get() + 1000, [](unsigned char byte) { return byte == 0; }));
    EXPECT_FALSE(boost::get_deleter<KRImage::deleter>(zeros)->external);
    const auto anything = KRImage::internalDataUninitialized(1000);
    std::fill_n(anything.get(), 1000, static_cast<unsigned char>(7)); // fully accessible
    EXPECT_FALSE(boost::get_deleter<KRImage::deleter>(anything)->external);
}

TEST(KRImageData, ExternalDataBelongsToTheCallerAndIsNeverFreed) {
    std::array<unsigned char, 4> bytes = {1, 2, 3, 4};
    {
        const auto data = KRImage::externalData(bytes.data());
        EXPECT_EQ(data.get(), bytes.data());
        EXPECT_TRUE(boost::get_deleter<KRImage::deleter>(data)->external);
    }
    EXPECT_EQ(bytes[3], 4);
}

TEST(KRImageData, ANegativeSizeIsNotAllocated) {
    EXPECT_THROW(KRImage::internalDataUninitialized(static_cast<std::size_t>(-1)), std::bad_alloc);
    EXPECT_THROW(KRImage::internalDataZeroInitialized(static_cast<std::size_t>(-6)), std::bad_alloc);
}

TEST(KRImageData, OwnsDataDistinguishesTheThreeStatesOfTheBuffer) {
    EXPECT_TRUE(makeImage(0, 9).ownsData());
    KRImage image = makeImage(0, 9, true);
    EXPECT_FALSE(image.ownsData());
    std::array<unsigned char, 1> byte = {};
    image.data = KRImage::externalData(byte.data());
    EXPECT_FALSE(image.ownsData());
    image.data = KRImage::emptyData(false);
    EXPECT_TRUE(image.ownsData());
    image.data.reset();
    EXPECT_FALSE(image.ownsData());
}

// ---- constructors

TEST(KRImage, FromAResolutionHasItsSizeAndAZeroedBuffer) {
    const KRImage image(2, 9, false, 0.4f, 0.3f, -0.4f, -0.3f);
    EXPECT_EQ(image.width, 640);
    EXPECT_EQ(image.height, 480);
    EXPECT_EQ(image.nbLayers, 2);
    EXPECT_EQ(image.colorSpace, 9);
    EXPECT_EQ(image.timeStamp, -1);
    EXPECT_EQ(image.cameraId, 0);
    EXPECT_EQ(image.allocatedSize, 614400);
    EXPECT_EQ(image.allocatedResolution, 2);
    EXPECT_EQ(image.allocatedLayers, 2);
    EXPECT_EQ(image.leftAngle, 0.4f);
    EXPECT_EQ(image.topAngle, 0.3f);
    EXPECT_EQ(image.rightAngle, -0.4f);
    EXPECT_EQ(image.bottomAngle, -0.3f);
    EXPECT_TRUE(image.rois.empty());
    EXPECT_FALSE(image.extraFlag);
    EXPECT_TRUE(image.ownsData());
    EXPECT_TRUE(
        std::all_of(image.data.get(), image.data.get() + 614400, [](auto byte) { return byte == 0; }));
}

TEST(KRImage, FromEveryValidResolutionAndColorSpaceIsSizedByTheTables) {
    for (int resolution = 0; resolution <= 8; ++resolution) {
        for (int colorSpace = 0; colorSpace <= 26; ++colorSpace) {
            const KRImage image = makeImage(resolution, colorSpace, true);
            int width = 0;
            int height = 0;
            KR::setSizeFromResolution(resolution, width, height);
            EXPECT_EQ(image.width, width);
            EXPECT_EQ(image.height, height);
            EXPECT_EQ(image.nbLayers, KR::getNumLayersInColorSpace(colorSpace));
            EXPECT_EQ(image.allocatedSize, width * height * image.nbLayers);
            EXPECT_EQ(image.allocatedResolution, resolution);
            EXPECT_EQ(image.allocatedLayers, image.nbLayers);
        }
    }
}

TEST(KRImage, WithAnEmptyBufferHasNoPixelsButItsFullSize) {
    const KRImage image = makeImage(2, 9, true);
    EXPECT_EQ(image.data.get(), nullptr);
    EXPECT_EQ(image.allocatedSize, 614400);
    const KRImage sized = makeImage(640, 480, 9, true);
    EXPECT_EQ(sized.data.get(), nullptr);
    EXPECT_EQ(sized.allocatedSize, 614400);
}

TEST(KRImage, RefusesResolutionsThatOnlyTheSizeTableHas) {
    for (const int resolution : {9, 17, 18, -1, kIntMax}) {
        EXPECT_THAT([&] { makeImage(resolution, 9); },
                    ThrowsMessage<std::invalid_argument>(StrEq("KRImage: invalid resolution")));
    }
}

TEST(KRImage, FromASizeAcceptsSizesRefusedAsResolutions) {
    const KRImage image(640, 360, 9, false, 0.4f, 0.3f, -0.4f, -0.3f);
    EXPECT_EQ(image.width, 640);
    EXPECT_EQ(image.height, 360);
    EXPECT_EQ(image.allocatedResolution, 9);
    EXPECT_EQ(image.allocatedLayers, 2);
    EXPECT_EQ(image.timeStamp, -1);
    EXPECT_EQ(image.cameraId, 0);
    EXPECT_EQ(image.leftAngle, 0.4f);
    EXPECT_EQ(image.topAngle, 0.3f);
    EXPECT_EQ(image.rightAngle, -0.4f);
    EXPECT_EQ(image.bottomAngle, -0.3f);
    EXPECT_TRUE(image.rois.empty());
    EXPECT_FALSE(image.extraFlag);
}

TEST(KRImage, WithASizeOutsideTheTableHasNoAllocatedResolution) {
    const KRImage image = makeImage(100, 100, 13, false);
    EXPECT_EQ(image.allocatedResolution, -1);
    EXPECT_EQ(image.allocatedSize, 30000);
    EXPECT_TRUE(image.ownsData());
    EXPECT_TRUE(std::all_of(image.data.get(), image.data.get() + 30000, [](auto byte) { return byte == 0; }));
}

TEST(KRImage, WithoutPixelsHasABufferOfNoBytes) {
    const KRImage image = makeImage(0, 0, 9, false);
    EXPECT_EQ(image.allocatedSize, 0);
    EXPECT_TRUE(image.ownsData());
}

TEST(KRImage, ChecksTheColorSpaceBeforeTheResolution) {
    const auto refuses = ThrowsMessage<std::invalid_argument>(StrEq("KRImage: invalid colorspace"));
    for (const int colorSpace : {27, -1, kIntMax}) {
        EXPECT_THAT([&] { makeImage(1, colorSpace); }, refuses);
        EXPECT_THAT([&] { makeImage(99, colorSpace); }, refuses);
        EXPECT_THAT([&] { makeImage(640, 480, colorSpace, false); }, refuses);
        EXPECT_THAT([&] { makeImage(-1, 1, colorSpace, false); }, refuses);
    }
}

TEST(KRImage, WithANegativeSizeIsNotAllocated) {
    EXPECT_THROW(makeImage(-1, 10, 0, false), std::bad_alloc);
    EXPECT_THROW(makeImage(32768, 32768, 9, false), std::bad_alloc); // 2^31 bytes wrap to -2^31
    const KRImage image = makeImage(-1, 10, 0, true); // unchecked as long as nothing is allocated
    EXPECT_EQ(image.width, -1);
    EXPECT_EQ(image.allocatedSize, -10);
}

TEST(KRImage, SizesWrapAroundAt32Bits) {
    EXPECT_EQ(makeImage(65536, 65536, 9, true).allocatedSize, 0);
    EXPECT_EQ(makeImage(65537, 65536, 9, true).allocatedSize, 131072);
    EXPECT_EQ(makeImage(kIntMax, kIntMax, 19, true).allocatedSize, 12);
}

// ---- copies

TEST(KRImage, CopySharesThePixelsAndCopiesEverythingElse) {
    KRImage image = makeImage(0, 9);
    image.timeStamp = 42;
    image.cameraId = -3;
    image.extraFlag = true;
    image.rois.emplace_back(1, 2, 3, 4);
    KRImage copy(image);
    EXPECT_EQ(Shape(copy), Shape(image));
    EXPECT_EQ(copy.timeStamp, 42);
    EXPECT_EQ(copy.cameraId, -3);
    EXPECT_EQ(copy.leftAngle, 0.4f);
    EXPECT_EQ(copy.topAngle, 0.3f);
    EXPECT_EQ(copy.rightAngle, -0.4f);
    EXPECT_EQ(copy.bottomAngle, -0.3f);
    EXPECT_TRUE(copy.extraFlag);
    ASSERT_EQ(copy.rois.size(), 1u);
    EXPECT_EQ(copy.rois[0].w, 3);
    EXPECT_EQ(image.data.use_count(), 2);

    copy.data[100] = 77;
    EXPECT_EQ(image.data[100], 77);
    copy.rois[0].w = 30;
    EXPECT_EQ(image.rois[0].w, 3);
}

TEST(KRImage, PixelsOutliveTheCopiedImage) {
    std::optional<KRImage> image = makeImage(0, 9);
    image->data[0] = 5;
    const KRImage copy(*image);
    image.reset();
    EXPECT_EQ(copy.data[0], 5);
    EXPECT_EQ(copy.data.use_count(), 1);
}

TEST(KRImage, DeepCopyHasItsOwnPixels) {
    KRImage image = makeImage(0, 9);
    image.data[100] = 77;
    image.data[38399] = 78;
    image.extraFlag = true;
    image.rois.emplace_back(1, 2, 3, 4);
    KRImage copy = image.deepCopy();
    EXPECT_NE(copy.data.get(), image.data.get());
    EXPECT_EQ(copy.data[100], 77);
    EXPECT_EQ(copy.data[38399], 78);
    EXPECT_TRUE(copy.extraFlag);
    EXPECT_EQ(copy.rois.size(), 1u);
    copy.data[100] = 1;
    EXPECT_EQ(image.data[100], 77);
}

TEST(KRImage, DeepCopyCopiesTheAllocatedSizeNotTheCurrentOne) {
    KRImage image = makeImage(2, 9);
    image.data[614399] = 9;
    image.setResolution(0);
    const KRImage copy = image.deepCopy();
    EXPECT_EQ(copy.allocatedSize, 614400);
    EXPECT_EQ(copy.width, 160);
    EXPECT_EQ(copy.data[614399], 9);
}

TEST(KRImage, DeepCopyOfAnExternalBufferIsOwned) {
    std::array<unsigned char, 8> bytes = {1, 2, 3, 4, 5, 6, 7, 8};
    KRImage image = makeImage(2, 2, 9, true);
    image.data = KRImage::externalData(bytes.data());
    const KRImage copy = image.deepCopy();
    EXPECT_TRUE(copy.ownsData());
    EXPECT_EQ(copy.data[7], 8);
}

TEST(KRImage, DeepCopyOfAnImageWithoutPixelsHasABuffer) {
    EXPECT_TRUE(makeImage(0, 9, true).deepCopy().ownsData());
}

// ---- setResolution

TEST(KRImageSetResolution, ToASmallerCodeKeepsTheBuffer) {
    KRImage image = makeImage(2, 9);
    const auto* data = image.data.get();
    EXPECT_TRUE(image.setResolution(1));
    EXPECT_EQ(image.width, 320);
    EXPECT_EQ(image.height, 240);
    EXPECT_EQ(image.data.get(), data);
    EXPECT_EQ(image.allocatedSize, 614400);
    EXPECT_EQ(image.allocatedResolution, 2);
}

TEST(KRImageSetResolution, BeyondTheCodeTheBufferWasSizedForReallocates) {
    KRImage image = makeImage(2, 9);
    EXPECT_TRUE(image.setResolution(1));
    EXPECT_TRUE(image.setResolution(3));
    EXPECT_EQ(image.width, 1280);
    EXPECT_EQ(image.height, 960);
    EXPECT_EQ(image.allocatedSize, 1280 * 960 * 2);
    EXPECT_EQ(image.allocatedResolution, 3);
    EXPECT_EQ(image.allocatedLayers, 2);
    EXPECT_TRUE(image.ownsData());
    std::fill_n(image.data.get(), image.allocatedSize, static_cast<unsigned char>(1)); // fully accessible
}

TEST(KRImageSetResolution, ReallocatesForTheAllocatedLayers) {
    KRImage image = makeImage(0, 13);
    EXPECT_TRUE(image.setColorSpace(0));
    EXPECT_TRUE(image.setResolution(1));
    EXPECT_EQ(image.nbLayers, 1);
    EXPECT_EQ(image.allocatedLayers, 3);
    EXPECT_EQ(image.allocatedSize, 320 * 240 * 3);
}

TEST(KRImageSetResolution, ComparesCodesNotSizes) {
    KRImage image = makeImage(7, 9); // 80x60
    const auto* data = image.data.get();
    EXPECT_TRUE(image.setResolution(2));
    EXPECT_EQ(image.width, 640);
    EXPECT_EQ(image.height, 480);
    EXPECT_EQ(image.data.get(), data);
    EXPECT_EQ(image.allocatedSize, 80 * 60 * 2);
    EXPECT_EQ(image.allocatedResolution, 7);

    KRImage shrunk = makeImage(2, 9);
    EXPECT_TRUE(shrunk.setResolution(8)); // 40x30, but a greater code
    EXPECT_EQ(shrunk.allocatedSize, 40 * 30 * 2);
}

TEST(KRImageSetResolution, ReplacesAnExternalBufferWithAnOwnedOne) {
    std::array<unsigned char, 8> bytes = {};
    KRImage image = makeImage(2, 2, 9, true);
    image.data = KRImage::externalData(bytes.data());
    EXPECT_TRUE(image.setResolution(0)); // allocatedResolution was -1
    EXPECT_TRUE(image.ownsData());
    EXPECT_EQ(image.allocatedSize, 160 * 120 * 2);
}

TEST(KRImageSetResolution, RefusesCodesThatOnlyTheSizeTableHas) {
    KRImage image = makeImage(2, 9);
    const Shape before(image);
    for (const int resolution : {9, 17, 18, -1}) {
        EXPECT_THAT([&] { image.setResolution(resolution); },
                    ThrowsMessage<std::invalid_argument>(StrEq("KRImage: invalid resolution")));
    }
    EXPECT_EQ(Shape(image), before);
}

TEST(KRImageSetResolution, WithoutABufferOfTheRightSizeChangesNothing) {
    KRImage image = makeImage(120, 160, 9, true); // as many bytes as 160x120, but no code and no buffer
    const Shape before(image);
    EXPECT_FALSE(image.setResolution(0));
    EXPECT_EQ(Shape(image), before);
}

// ---- setColorSpace

TEST(KRImageSetColorSpace, ToFewerLayersKeepsTheBuffer) {
    KRImage image = makeImage(0, 13);
    const auto* data = image.data.get();
    EXPECT_TRUE(image.setColorSpace(0));
    EXPECT_EQ(image.colorSpace, 0);
    EXPECT_EQ(image.nbLayers, 1);
    EXPECT_EQ(image.allocatedLayers, 3);
    EXPECT_EQ(image.allocatedSize, 160 * 120 * 3);
    EXPECT_EQ(image.data.get(), data);
    EXPECT_TRUE(image.setColorSpace(13)); // and back
    EXPECT_EQ(image.data.get(), data);
}

TEST(KRImageSetColorSpace, ToMoreLayersReallocatesForTheAllocatedResolution) {
    KRImage image = makeImage(2, 9);
    EXPECT_TRUE(image.setResolution(0));
    EXPECT_TRUE(image.setColorSpace(13));
    EXPECT_EQ(image.nbLayers, 3);
    EXPECT_EQ(image.allocatedLayers, 3);
    EXPECT_EQ(image.allocatedSize, 640 * 480 * 3);
    EXPECT_EQ(image.width, 160);
}

TEST(KRImageSetColorSpace, ToTheCurrentOneSucceedsEvenIfItIsInvalid) {
    KRImage image = makeImage(0, 9);
    EXPECT_TRUE(image.setColorSpace(9));
    image.colorSpace = 99;
    EXPECT_TRUE(image.setColorSpace(99));
    EXPECT_EQ(image.nbLayers, 2);
}

TEST(KRImageSetColorSpace, RefusesAnInvalidOne) {
    KRImage image = makeImage(0, 9);
    const Shape before(image);
    for (const int colorSpace : {27, -1}) {
        EXPECT_THAT(
            [&] { image.setColorSpace(colorSpace); },
            ThrowsMessage<std::invalid_argument>(StrEq("KRImage: setColorSpace: invalid color space")));
    }
    EXPECT_EQ(Shape(image), before);
}

TEST(KRImageSetColorSpace, ToMoreLayersNeedsABufferSizedForAResolution) {
    KRImage image = makeImage(100, 100, 9, false);
    const auto* data = image.data.get();
    EXPECT_THAT([&] { image.setColorSpace(13); }, ThrowsMessage<std::invalid_argument>(StrEq(
                                                      "KRImage: reallocateDataSize: Weird resolution #-1")));
    EXPECT_EQ(image.colorSpace, 13); // stored before the buffer is checked
    EXPECT_EQ(image.nbLayers, 3);
    EXPECT_EQ(image.allocatedLayers, 2);
    EXPECT_EQ(image.data.get(), data);
}

// ---- reallocateDataSize

TEST(KRImageReallocateDataSize, AcceptsEveryResolutionOfTheSizeTable) {
    for (int resolution = 0; resolution <= 17; ++resolution) {
        KRImage image = makeImage(1, 1, 0, false);
        int width = 0;
        int height = 0;
        KR::setSizeFromResolution(resolution, width, height);
        EXPECT_TRUE(image.reallocateDataSize(resolution, 2));
        EXPECT_EQ(image.allocatedSize, width * height * 2);
        EXPECT_EQ(image.allocatedResolution, resolution);
        EXPECT_EQ(image.allocatedLayers, 2);
        EXPECT_TRUE(image.ownsData());
        image.data[image.allocatedSize - 1] = 1;
        EXPECT_EQ(image.width, 1);
        EXPECT_EQ(image.height, 1);
        EXPECT_EQ(image.nbLayers, 1);
        EXPECT_EQ(image.colorSpace, 0);
    }
}

TEST(KRImageReallocateDataSize, ToTheSameSizeChangesNothing) {
    KRImage image = makeImage(0, 3, 9, true);
    image.allocatedSize = 160 * 120 * 2;
    const Shape before(image);
    EXPECT_FALSE(image.reallocateDataSize(0, 2)); // no buffer
    EXPECT_EQ(Shape(image), before);

    image.data = KRImage::emptyData(false);
    const auto* data = image.data.get();
    EXPECT_TRUE(image.reallocateDataSize(0, 2));
    EXPECT_EQ(image.data.get(), data);
    EXPECT_EQ(image.allocatedResolution, -1);
    EXPECT_EQ(image.allocatedLayers, 2);
}

TEST(KRImageReallocateDataSize, LeavesABufferThatACopyStillHolds) {
    KRImage image = makeImage(0, 9);
    image.data[0] = 3;
    const KRImage copy(image);
    EXPECT_TRUE(image.reallocateDataSize(1, 2));
    EXPECT_NE(image.data.get(), copy.data.get());
    EXPECT_EQ(copy.data[0], 3);
}

TEST(KRImageReallocateDataSize, LeavesAnExternalBufferAlone) {
    std::array<unsigned char, 8> bytes = {1, 2, 3, 4, 5, 6, 7, 8};
    KRImage image = makeImage(2, 2, 9, true);
    image.data = KRImage::externalData(bytes.data());
    EXPECT_TRUE(image.reallocateDataSize(0, 2));
    EXPECT_TRUE(image.ownsData());
    EXPECT_EQ(bytes[7], 8);
}

TEST(KRImageReallocateDataSize, RefusesAnUnknownCodeWithItsNumber) {
    KRImage image = makeImage(0, 9);
    const Shape before(image);
    EXPECT_THAT(
        [&] { image.reallocateDataSize(20, 2); },
        ThrowsMessage<std::invalid_argument>(StrEq("KRImage: reallocateDataSize: Weird resolution #20")));
    EXPECT_THAT(
        [&] { image.reallocateDataSize(-7, 2); },
        ThrowsMessage<std::invalid_argument>(StrEq("KRImage: reallocateDataSize: Weird resolution #-7")));
    EXPECT_EQ(Shape(image), before);
}

TEST(KRImageReallocateDataSize, ToANegativeSizeChangesNothing) {
    KRImage image = makeImage(0, 9);
    const Shape before(image);
    EXPECT_THROW(image.reallocateDataSize(2, -1), std::bad_alloc);
    EXPECT_THROW(image.reallocateDataSize(4, 512), std::bad_alloc); // 2516582400 bytes wrap below zero
    EXPECT_EQ(Shape(image), before);
}

} // namespace
