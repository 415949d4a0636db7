#include "krvision/krimage.hpp"

#include "krppm.hpp"
#include "temporaryfolder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

namespace {

using KR::KRImage;
using KR::test::Bytes;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

KRImage makePpmImage(int width, int height, int colorSpace, const Bytes& pixels) {
    KRImage image(width, height, colorSpace, false, 0, 0, 0, 0);
    std::copy(pixels.begin(), pixels.end(), image.data.get());
    return image;
}

KRImage makePpmImage(int width, int height, int colorSpace) {
    return {width, height, colorSpace, false, 0, 0, 0, 0};
}

Bytes makePpm(const std::string& header, const Bytes& pixels) {
    Bytes bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), pixels.begin(), pixels.end());
    return bytes;
}

class KRImagePpm : public testing::Test {
protected:
    std::string path(const std::string& name = "image.ppm") const { return folder_.path(name); }
    Bytes save(const KRImage& image) const {
        EXPECT_EQ(image.savePPM(path().c_str()), 1);
        return KR::test::readAll(path());
    }

private:
    const KR::test::TemporaryFolder folder_;
};

TEST_F(KRImagePpm, OneLayerIsGrey) {
    EXPECT_EQ(save(makePpmImage(3, 1, 0, {10, 20, 30})),
              makePpm("P6\n3 1\n 255\n", {10, 10, 10, 20, 20, 20, 30, 30, 30}));
}

TEST_F(KRImagePpm, TwoLayersAreWrittenAsLumaAndChroma) {
    EXPECT_EQ(save(makePpmImage(2, 1, 9, {10, 20, 30, 40})),
              makePpm("P6\n2 1\n 255\n", {10, 20, 40, 30, 20, 40}));
}

TEST_F(KRImagePpm, AnUnpairedLastPixelUsesItsOwnBytes) {
    EXPECT_EQ(save(makePpmImage(3, 1, 9, {10, 20, 30, 40, 50, 60})),
              makePpm("P6\n3 1\n 255\n", {10, 20, 40, 30, 20, 40, 50, 60, 60}));
    EXPECT_EQ(save(makePpmImage(1, 1, 9, {10, 20})), makePpm("P6\n1 1\n 255\n", {10, 20, 20}));
    EXPECT_EQ(save(makePpmImage(3, 5, 9)).size(), std::string("P6\n3 5\n 255\n").size() + 3 * 3 * 5);
    const File full(std::fopen("/dev/full", "wb"));
    EXPECT_EQ(KR::writePpm(makePpmImage(641, 479, 9), full.get()), -4);
}

TEST_F(KRImagePpm, ThreeLayersKeepTheirOrder) {
    EXPECT_EQ(save(makePpmImage(2, 1, 13, {1, 2, 3, 4, 5, 6})),
              makePpm("P6\n2 1\n 255\n", {1, 2, 3, 4, 5, 6}));
}

TEST_F(KRImagePpm, AnyOtherNumberOfLayersGivesOnlyTheHeader) {
    EXPECT_EQ(save(makePpmImage(2, 1, 18)), makePpm("P6\n2 1\n 255\n", {}));
    EXPECT_EQ(save(makePpmImage(2, 1, 19)), makePpm("P6\n2 1\n 255\n", {}));
    KRImage none(2, 1, 18, true, 0, 0, 0, 0);
    EXPECT_EQ(save(none), makePpm("P6\n2 1\n 255\n", {}));
    none.nbLayers = 0;
    EXPECT_EQ(save(none), makePpm("P6\n2 1\n 255\n", {}));
}

TEST_F(KRImagePpm, LargeImagesHaveEveryPixel) {
    Bytes luma(640 * 480), yuv(640 * 480 * 2), grey, coloured;
    for (std::size_t i = 0; i < yuv.size(); ++i) {
        yuv[i] = static_cast<unsigned char>(i * 31 / 7);
        if (i < luma.size()) {
            luma[i] = yuv[i];
            grey.insert(grey.end(), 3, luma[i]);
        }
    }
    for (std::size_t i = 0; i < yuv.size(); i += 4) {
        coloured.insert(coloured.end(), {yuv[i], yuv[i + 1], yuv[i + 3], yuv[i + 2], yuv[i + 1], yuv[i + 3]});
    }
    EXPECT_TRUE(save(makePpmImage(640, 480, 0, luma)) == makePpm("P6\n640 480\n 255\n", grey));
    EXPECT_TRUE(save(makePpmImage(640, 480, 9, yuv)) == makePpm("P6\n640 480\n 255\n", coloured));
}

TEST_F(KRImagePpm, NoPixelsGiveOnlyTheHeader) {
    EXPECT_EQ(save(makePpmImage(0, 5, 0)), makePpm("P6\n0 5\n 255\n", {}));
    EXPECT_EQ(save(makePpmImage(0, 5, 9)), makePpm("P6\n0 5\n 255\n", {}));
    EXPECT_EQ(save(makePpmImage(0, 5, 13)), makePpm("P6\n0 5\n 255\n", {}));
    EXPECT_EQ(save(KRImage(-2, 5, 0, true, 0, 0, 0, 0)), makePpm("P6\n-2 5\n 255\n", {}));
    EXPECT_EQ(save(KRImage(-2, 5, 9, true, 0, 0, 0, 0)), makePpm("P6\n-2 5\n 255\n", {}));
}

TEST_F(KRImagePpm, Minus1IfTheFileCannotBeOpened) {
    EXPECT_EQ(makePpmImage(2, 1, 9).savePPM(path("missing/image.ppm").c_str()), -1);
}

TEST_F(KRImagePpm, Minus2IfTheHeaderCannotBeWritten) {
    const File notForWriting(std::fopen("/dev/null", "rb"));
    EXPECT_EQ(KR::writePpm(makePpmImage(2, 1, 9), notForWriting.get()), -2);
    const File full(std::fopen("/dev/full", "wb"));
    std::setvbuf(full.get(), nullptr, _IONBF, 0);
    EXPECT_EQ(KR::writePpm(makePpmImage(2, 1, 9), full.get()), -2);
}

TEST_F(KRImagePpm, Minus3Minus4Minus5IfThePixelsCannotBeWritten) {
    EXPECT_EQ(makePpmImage(640, 480, 13).savePPM("/dev/full"), -3);
    EXPECT_EQ(makePpmImage(640, 480, 9).savePPM("/dev/full"), -4);
    EXPECT_EQ(makePpmImage(640, 480, 0).savePPM("/dev/full"), -5);
}

TEST_F(KRImagePpm, Minus3Minus4Minus5IfThereAreNoPixels) {
    EXPECT_EQ(KRImage(2, 1, 13, true, 0, 0, 0, 0).savePPM(path().c_str()), -3);
    EXPECT_EQ(KRImage(2, 1, 9, true, 0, 0, 0, 0).savePPM(path().c_str()), -4);
    EXPECT_EQ(KRImage(2, 1, 0, true, 0, 0, 0, 0).savePPM(path().c_str()), -5);
    KRImage image = makePpmImage(7, 1, 0);
    image.width = 8;
    EXPECT_EQ(image.savePPM(path().c_str()), -5);
}

TEST_F(KRImagePpm, Minus6IfTheFileCannotBeClosed) {
    EXPECT_EQ(makePpmImage(2, 1, 9).savePPM("/dev/full"), -6);
    EXPECT_EQ(makePpmImage(2, 1, 18).savePPM("/dev/full"), -6);
}

} // namespace
