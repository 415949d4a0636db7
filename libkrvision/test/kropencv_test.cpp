#include "krvision/kropencv.hpp"

#include "krvision/krannotations.hpp"

#include <opencv2/imgproc.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <numeric>
#include <string>

namespace {

using testing::HasSubstr;

/// An image whose bytes count up from 0.
KR::KRImage makeImage(int width, int height, int colorSpace) {
    KR::KRImage image(width, height, colorSpace, false, 0, 0, 0, 0);
    std::iota(image.data.get(), image.data.get() + width * height * image.nbLayers,
              static_cast<unsigned char>(0));
    return image;
}

std::string errorOf(const std::function<void()>& act) {
    try {
        act();
    } catch (const KR::KRError& error) {
        return error.getDescription();
    }
    return "no error";
}

TEST(KROpenCV, AMatrixSharesThePixelsOfItsImage) {
    const KR::KRImage image = makeImage(6, 4, KR::kBgrColorSpace);
    cv::Mat mat = KR::toMat(image);
    EXPECT_EQ(mat.data, image.data.get());
    EXPECT_EQ(mat.size(), cv::Size(6, 4));
    EXPECT_EQ(mat.type(), CV_8UC3);
    EXPECT_EQ(mat.at<cv::Vec3b>(2, 1), cv::Vec3b(39, 40, 41)); // row 2, column 1
    mat.at<cv::Vec3b>(2, 1)[0] = 200;
    EXPECT_EQ(image.data[39], 200);
}

TEST(KROpenCV, EachColourSpaceOfTheCameraServiceHasAMatrixType) {
    EXPECT_EQ(KR::toMat(makeImage(4, 2, KR::kLumaColorSpace)).type(), CV_8UC1);
    EXPECT_EQ(KR::toMat(makeImage(4, 2, KR::kYUV422ColorSpace)).type(), CV_8UC2);
    EXPECT_EQ(KR::toMat(makeImage(4, 2, KR::kRgbColorSpace)).type(), CV_8UC3);
    EXPECT_EQ(KR::toMat(makeImage(4, 2, KR::kBgrxColorSpace)).type(), CV_8UC4);
    EXPECT_EQ(KR::toMat(makeImage(4, 2, 17)).type(), CV_16UC1);
}

TEST(KROpenCV, AMatrixKeepsThePixelsOfADestroyedImage) {
    cv::Mat mat;
    boost::weak_ptr<unsigned char[]> pixels;
    {
        const KR::KRImage image = makeImage(6, 4, KR::kLumaColorSpace);
        pixels = image.data;
        mat = KR::toMat(image);
    }
    cv::Mat second = mat.rowRange(1, 3);
    mat.release();
    EXPECT_FALSE(pixels.expired());
    EXPECT_EQ(second.at<unsigned char>(0, 0), 6);
    second.release();
    EXPECT_TRUE(pixels.expired());
}

TEST(KROpenCV, AMatrixCanBeReassigned) {
    const KR::KRImage image = makeImage(6, 4, KR::kBgrColorSpace);
    cv::Mat mat = KR::toMat(image);
    cv::cvtColor(mat, mat, cv::COLOR_BGR2GRAY);
    EXPECT_EQ(mat.type(), CV_8UC1);
    EXPECT_NE(mat.data, image.data.get());
    cv::UMat elsewhere;
    KR::toMat(image).copyTo(elsewhere);
    EXPECT_EQ(elsewhere.size(), cv::Size(6, 4));
}

TEST(KROpenCV, ARegionSharesAPartOfThePixels) {
    const KR::KRImage image = makeImage(6, 4, KR::kLumaColorSpace);
    cv::Mat part = KR::toMat(image, KR::KRImage::ROI(2, 1, 3, 2));
    EXPECT_EQ(part.size(), cv::Size(3, 2));
    EXPECT_EQ(part.data, image.data.get() + 8);
    EXPECT_EQ(part.at<unsigned char>(1, 2), 16);
    part.setTo(0);
    EXPECT_EQ(image.data[16], 0);
    EXPECT_EQ(image.data[17], 17);
}

TEST(KROpenCV, RefusesARegionThatIsNotInsideTheImage) {
    const KR::KRImage image = makeImage(6, 4, KR::kYUV422ColorSpace);
    for (const KR::KRImage::ROI& roi :
         {KR::KRImage::ROI(-1, 0, 2, 2), KR::KRImage::ROI(4, 0, 3, 2), KR::KRImage::ROI(0, 3, 2, 2),
          KR::KRImage::ROI(0, 0, 0, 2), KR::KRImage::ROI(2147483647, 0, 2, 2)}) {
        EXPECT_THAT(errorOf([&] { KR::toMat(image, roi); }), HasSubstr("is not inside the image of 6x4"));
    }
    EXPECT_THAT(errorOf([&] { KR::toMat(image, KR::KRImage::ROI(1, 0, 2, 2)); }),
                HasSubstr("must begin at an even column"));
}

TEST(KROpenCV, RefusesAnImageThatFitsNoMatrix) {
    EXPECT_THAT(errorOf([] { KR::toMat(makeImage(4, 2, 19)); }),
                HasSubstr("in colour space 19 has no matrix type"));
    EXPECT_THAT(errorOf([] { KR::toMat(KR::KRImage(4, 2, KR::kLumaColorSpace, true, 0, 0, 0, 0)); }),
                HasSubstr("has no buffer"));
    KR::KRImage image = makeImage(4, 2, KR::kLumaColorSpace);
    image.height = 3;
    EXPECT_THAT(errorOf([&] { KR::toMat(image); }), HasSubstr("needs a buffer of 12 bytes, not 8"));
    image.height = -1;
    EXPECT_THAT(errorOf([&] { KR::toMat(image); }), HasSubstr("4x-1 pixels in colour space 0 has no pixels"));
    image.height = 2;
    image.nbLayers = 2;
    EXPECT_THAT(errorOf([&] { KR::toMat(image); }),
                HasSubstr("has 2 bytes per pixel; the colour space has 1"));
}

TEST(KROpenCV, AnImageSharesAndKeepsThePixelsOfItsMatrix) {
    cv::Mat mat(4, 6, CV_8UC3, cv::Scalar(1, 2, 3));
    const unsigned char* const pixels = mat.data;
    KR::KRImage image = KR::toImage(mat, KR::kBgrColorSpace);
    const cv::UMatData* const held = mat.u;
    EXPECT_EQ(held->refcount, 2);
    mat.release();
    EXPECT_EQ(image.data.get(), pixels);
    EXPECT_EQ(image.width, 6);
    EXPECT_EQ(image.height, 4);
    EXPECT_EQ(image.nbLayers, 3);
    EXPECT_EQ(image.colorSpace, KR::kBgrColorSpace);
    EXPECT_FALSE(image.ownsData());
    EXPECT_EQ(image.data[71], 3);
    EXPECT_EQ(image.deepCopy().data[71], 3);
    KR::KRAnnotations annotations;
    annotations.points.push_back({0.5F, 0.5F});
    KR::drawAnnotations(image, annotations); // writes to the shared pixels
    EXPECT_EQ(held->refcount, 1);
}

TEST(KROpenCV, ThereAndBackIsTheSameImage) {
    const KR::KRImage image = makeImage(6, 4, KR::kYUV422ColorSpace);
    const KR::KRImage back = KR::toImage(KR::toMat(image), KR::kYUV422ColorSpace);
    EXPECT_EQ(back.data.get(), image.data.get());
    EXPECT_EQ(back.width, 6);
}

TEST(KROpenCV, RefusesAMatrixThatIsNotAnImage) {
    const cv::Mat mat(4, 6, CV_8UC3);
    EXPECT_THAT(errorOf([&] { KR::toImage(mat, KR::kLumaColorSpace); }),
                HasSubstr("type CV_8UC3 is no image of colour space 0, which needs CV_8UC1"));
    EXPECT_THAT(errorOf([&] { KR::toImage(mat, 19); }), HasSubstr("OpenCV has no type for"));
    EXPECT_THAT(errorOf([&] { KR::toImage(mat, 99); }), HasSubstr("OpenCV has no type for"));
    EXPECT_THAT(errorOf([&] { KR::toImage(mat.colRange(0, 3), KR::kBgrColorSpace); }),
                HasSubstr("rows of 9 bytes lie 18 bytes apart"));
    EXPECT_THAT(errorOf([&] { KR::toImage(cv::Mat(), KR::kBgrColorSpace); }), HasSubstr("is no image"));
}

} // namespace
