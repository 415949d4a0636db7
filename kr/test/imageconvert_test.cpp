// kr image convert and kr image dump

#include "image/pictureconversion.hpp"
#include "program.hpp"
#include "tool/colorspace.hpp"

#include "temporaryfolder.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>

#include <sys/stat.h>

namespace {

using namespace KR::test;
using namespace KR::tool;
using KR::KRImage;
using testing::HasSubstr;

constexpr int kWidth = 64;
constexpr int kHeight = 48;

// Four fields: red, green, blue, and a ramp of grey.
Picture makeTestPicture() {
    Picture picture;
    picture.width = kWidth;
    picture.height = kHeight;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const auto grey = static_cast<unsigned char>(x * 4);
            const std::array<std::array<unsigned char, 3>, 4> fields = {
                {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {grey, grey, grey}}};
            const auto& field = fields[static_cast<std::size_t>(2 * (y >= kHeight / 2) + (x >= kWidth / 2))];
            picture.rgb.insert(picture.rgb.end(), field.begin(), field.end());
        }
    }
    return picture;
}

int largestDifference(const Picture& one, const Picture& other) {
    EXPECT_EQ(one.width, other.width);
    EXPECT_EQ(one.height, other.height);
    int largest = 0;
    for (std::size_t i = 0; i < one.rgb.size() && i < other.rgb.size(); ++i) {
        largest = std::max(largest, std::abs(one.rgb[i] - other.rgb[i]));
    }
    return largest;
}

class KrImageConvert : public testing::Test {
protected:
    std::string path(const std::string& name) const { return folder_.path(name); }
    std::string writeOxi(const std::string& name, int colorSpace) const {
        KRImage image = makeImage(picture, colorSpace);
        image.timeStamp = 1500000000123456;
        image.cameraId = -2;
        image.bottomAngle = -0.25f;
        EXPECT_TRUE(image.writeFile(path(name).c_str()));
        return path(name);
    }
    Outcome convert(const std::string& in, const std::string& out,
                    std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"image", "convert", path(in), path(out)});
        return kr(options);
    }
    std::vector<std::string> listFolder() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path(""))) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const Picture picture = makeTestPicture();

private:
    const TemporaryFolder folder_;
};

TEST_F(KrImageConvert, EveryColorSpaceGivesTheRightColoursInEveryFormat) {
    struct Case {
        int colorSpace;
        int tolerance; // for lossless formats
    };
    for (const Case& c : {Case{KR::kYUV422ColorSpace, 2}, Case{KR::kRgbColorSpace, 0},
                          Case{KR::kBgrColorSpace, 0}, Case{KR::kBgrxColorSpace, 0}}) {
        writeOxi("a.oxi", c.colorSpace);
        for (const std::string format : {"ppm", "png", "jpg"}) {
            const Outcome outcome = convert("a.oxi", "a." + format);
            EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
            EXPECT_EQ(outcome.err, "");
            EXPECT_EQ(outcome.out, "");
            const int tolerance =
                c.tolerance + (format == "jpg" ? 40 : 0); // jpeg blurs the edges of the fields
            EXPECT_LE(largestDifference(readPicture(path("a." + format)), picture), tolerance)
                << c.colorSpace << " " << format;
        }
    }
}

TEST_F(KrImageConvert, ColoursFollowTheStandard) {
    // Levels of ITU-R BT.601: red, green, blue and grey.
    const Bytes yuv422 = {81, 90, 81, 240, 145, 54, 145, 34, 41, 240, 41, 110, 126, 128, 126, 128};
    const Bytes rgb = {254, 0, 0,   254, 0, 0,   0,   255, 1,   0,   255, 1,
                       0,   0, 255, 0,   0, 255, 128, 128, 128, 128, 128, 128};
    KRImage image(8, 1, KR::kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    std::copy(yuv422.begin(), yuv422.end(), image.data.get());
    ASSERT_TRUE(image.writeFile(path("a.oxi").c_str()));
    EXPECT_EQ(convert("a.oxi", "a.png").exitCode, 0);
    EXPECT_EQ(readPicture(path("a.png")).rgb, rgb);
    EXPECT_EQ(convert("a.png", "b.oxi").exitCode, 0);
    KRImage back(1, 1, 0, false, 0.0f, 0.0f, 0.0f, 0.0f);
    ASSERT_TRUE(back.readFile(path("b.oxi").c_str()));
    EXPECT_EQ(Bytes(back.data.get(), back.data.get() + 16), yuv422);
}

TEST_F(KrImageConvert, APairOfPixelsHasItsMeanColour) {
    Picture pair;
    pair.width = 2;
    pair.height = 1;
    pair.rgb = {255, 0, 0, 0, 0, 255};
    const KRImage image = makeImage(pair, KR::kYUV422ColorSpace);
    EXPECT_EQ(Bytes(image.data.get(), image.data.get() + 4), (Bytes{81, 165, 41, 175}));
}

TEST_F(KrImageConvert, Yuv422CanBeWrittenAsModulesSeeIt) {
    KRImage image = makeImage(picture, KR::kYUV422ColorSpace);
    ASSERT_TRUE(image.writeFile(path("a.oxi").c_str()));
    Bytes bgr(picture.rgb.size());
    ASSERT_TRUE(image.computeBGRimageFromYUV422(bgr.data()));
    EXPECT_EQ(convert("a.oxi", "a.png", {"--as-modules-see"}).exitCode, 0);
    const Picture result = readPicture(path("a.png"));
    ASSERT_EQ(result.rgb.size(), bgr.size());
    for (std::size_t i = 0; i < bgr.size(); ++i) {
        ASSERT_EQ(result.rgb[i], bgr[i / 3 * 3 + 2 - i % 3]) << i;
    }
}

TEST_F(KrImageConvert, LumaBecomesGreyFromBlackToWhite) {
    KRImage luma(3, 1, KR::kLumaColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    luma.data[0] = 16;
    luma.data[1] = 126;
    luma.data[2] = 235;
    ASSERT_TRUE(luma.writeFile(path("a.oxi").c_str()));
    EXPECT_EQ(convert("a.oxi", "a.png").exitCode, 0);
    const Picture result = readPicture(path("a.png"));
    EXPECT_TRUE(result.isGrey);
    EXPECT_EQ(result.rgb, (Bytes{0, 0, 0, 128, 128, 128, 255, 255, 255}));
    EXPECT_EQ(convert("a.oxi", "b.png", {"--as-modules-see"}).exitCode, 0);
    EXPECT_EQ(readPicture(path("b.png")).rgb, (Bytes{0, 0, 0, 128, 128, 128, 254, 254, 254}));
}

TEST_F(KrImageConvert, PicturesSurviveTheRoundTrip) {
    for (const std::string format : {"ppm", "png"}) {
        writePicture(picture, path("a." + format));
        for (const std::string space : {"bgr", "rgb", "BGRx"}) {
            const Outcome outcome = convert("a." + format, "b.oxi", {"--color-space", space});
            EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
            EXPECT_EQ(convert("b.oxi", "b." + format).exitCode, 0);
            EXPECT_EQ(readAll(path("b." + format)), readAll(path("a." + format)));
        }
    }
}

TEST_F(KrImageConvert, APictureBecomesYuv422AndAGreyOneLuma) {
    writePicture(picture, path("a.png"));
    EXPECT_EQ(convert("a.png", "a.oxi").exitCode, 0);
    KRImage image(1, 1, 0, false, 0.0f, 0.0f, 0.0f, 0.0f);
    ASSERT_TRUE(image.readFile(path("a.oxi").c_str()));
    EXPECT_EQ(image.colorSpace, KR::kYUV422ColorSpace);
    EXPECT_EQ(image.timeStamp, -1);
    EXPECT_LE(largestDifference(makePicture(image), picture), 2);

    Picture grey = picture;
    for (std::size_t i = 0; i < grey.rgb.size(); ++i) {
        grey.rgb[i] = static_cast<unsigned char>(i / 3);
    }
    grey.isGrey = true;
    writePicture(grey, path("g.png"));
    EXPECT_EQ(convert("g.png", "g.oxi").exitCode, 0);
    ASSERT_TRUE(image.readFile(path("g.oxi").c_str()));
    EXPECT_EQ(image.colorSpace, KR::kLumaColorSpace);
    EXPECT_LE(largestDifference(makePicture(image), grey), 2);
}

TEST_F(KrImageConvert, FromOxiToOxiKeepsTheImagesProperties) {
    writeOxi("a.oxi", KR::kRgbColorSpace);
    EXPECT_EQ(convert("a.oxi", "b.oxi").exitCode, 0);
    EXPECT_EQ(readAll(path("b.oxi")), readAll(path("a.oxi")));
    EXPECT_EQ(convert("a.oxi", "b.oxi", {"--color-space", "yuv422"}).exitCode, 0);
    EXPECT_EQ(readAll(path("b.oxi")), readAll(writeOxi("c.oxi", KR::kYUV422ColorSpace)));
}

TEST_F(KrImageConvert, TheLastOfAnOddNumberOfPixelsIsConverted) {
    Picture odd;
    odd.width = 3;
    odd.height = 3;
    odd.rgb.assign(27, 200);
    for (const int colorSpace : {KR::kLumaColorSpace, KR::kRgbColorSpace}) {
        EXPECT_LE(largestDifference(makePicture(makeImage(odd, colorSpace)), odd), 1);
    }
    KRImage yuv422(3, 3, KR::kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    for (int i = 0; i < 18; ++i) {
        yuv422.data[i] = i % 2 == 0 ? 235 : 128;
    }
    EXPECT_EQ(makePicture(yuv422).rgb, Bytes(27, 255));
}

TEST_F(KrImageConvert, AnUnpairedLastPixelUsesItsOwnChromaOnly) {
    const Bytes yuv422 = {40, 77, 114, 151, 188, 225};
    KRImage odd(3, 1, KR::kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    std::copy(yuv422.begin(), yuv422.end(), odd.data.get());
    KRImage even(4, 1, KR::kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    std::copy(yuv422.begin(), yuv422.end(), even.data.get());
    std::copy_n(yuv422.end() - 2, 2, even.data.get() + 6);
    ASSERT_EQ(odd.savePPM(path("odd.ppm").c_str()), 1); // Y U V, unconverted
    const Bytes saved = readAll(path("odd.ppm"));
    EXPECT_EQ(Bytes(saved.end() - 3, saved.end()), (Bytes{188, 225, 225})) << "the library's";
    Bytes expected = makePicture(even).rgb;
    expected.resize(9);
    EXPECT_EQ(makePicture(odd).rgb, expected);
}

TEST_F(KrImageConvert, UnconvertibleInputIsReported) {
    Picture odd;
    odd.width = 3;
    odd.height = 1;
    odd.rgb.assign(9, 0);
    writePicture(odd, path("odd.png"));
    writeOxi("a.oxi", KR::kRgbColorSpace);
    KRImage other(2, 2, 10, false, 0.0f, 0.0f, 0.0f, 0.0f);
    ASSERT_TRUE(other.writeFile(path("other.oxi").c_str()));
    Bytes cut = readAll(path("a.oxi"));
    cut.resize(1000);
    writeAll(path("cut.oxi"), cut);
    writeAll(path("ppm.ppm"), {'P', '6', ' ', '9', ' ', '9', ' ', '2', '5', '5', '\n', 1, 2});
    writeAll(path("deep.ppm"), {'P', '6', ' ', '1', ' ', '1', ' ', '2', '5', '6', '\n', 1, 2});
    Bytes png = readAll(path("odd.png"));
    png.resize(png.size() / 2);
    writeAll(path("cut.png"), png);

    struct Case {
        std::string in, out;
        std::vector<std::string> options;
        int exitCode;
        std::string text;
    };
    for (const Case& c : {
             Case{"odd.png", "b.oxi", {}, 1, "YUV422 needs an even width, not 3"},
             Case{"other.oxi", "b.png", {}, 1, "colour space 10 is not supported; colour spaces are luma"},
             Case{"cut.oxi", "b.png", {}, 1, "cut.oxi: the file ends within the pixels: it has 1000 bytes"},
             Case{"ppm.ppm", "b.png", {}, 1, "ppm.ppm: ends within the pixels"},
             Case{"deep.ppm", "b.png", {}, 1, "deep.ppm: has samples up to 256"},
             Case{"cut.png", "b.ppm", {}, 1, "cut.png: "},
             Case{"missing.oxi", "b.png", {}, 1, "missing.oxi: cannot be read: No such file"},
             Case{"a.oxi", "missing/b.png", {}, 1, "there is no folder"},
             Case{"a.oxi", "a.oxi", {}, 1, "is the input file"},
             Case{"a.oxi", "b.bmp", {}, 2, "the extension selects the format"},
             Case{"a.oxi", "b.oxi", {"--color-space", "red"}, 2, "colour space red is not supported"},
             Case{"a.oxi", "b.png", {"--color-space", "rgb"}, 2, "--color-space is for oxi files only"},
             Case{"a.oxi", "b.jpg", {"--quality", "101"}, 2, "--quality"},
         }) {
        const Outcome outcome = convert(c.in, c.out, c.options);
        EXPECT_EQ(outcome.exitCode, c.exitCode);
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, HasSubstr(c.text));
    }
    EXPECT_THAT(listFolder(), testing::UnorderedElementsAre("odd.png", "a.oxi", "other.oxi", "cut.oxi",
                                                            "ppm.ppm", "deep.ppm", "cut.png"));
}

TEST_F(KrImageConvert, AFailedConversionLeavesTheOldFile) {
    writeAll(path("a.oxi"), {'1', 'I', 'X', 'O'});
    writeAll(path("a.png"), {1, 2, 3});
    EXPECT_EQ(convert("a.oxi", "a.png").exitCode, 1);
    EXPECT_EQ(readAll(path("a.png")), (Bytes{1, 2, 3}));
}

TEST_F(KrImageConvert, AFullDiskIsAFailure) {
    const std::string in = writeOxi("a.oxi", KR::kRgbColorSpace);
    for (const std::string format : {"oxi", "ppm", "png", "jpg"}) {
        std::filesystem::create_symlink("/dev/full", path("full." + format));
        const Outcome outcome = convert("a.oxi", "full." + format);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_NE(outcome.err, "");
    }
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST_F(KrImageConvert, ReplacesTheFileBehindALink) {
    writeOxi("a.oxi", KR::kRgbColorSpace);
    writeAll(path("old.png"), {1});
    std::filesystem::create_symlink("old.png", path("link.png"));
    EXPECT_EQ(convert("a.oxi", "link.png").exitCode, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(path("link.png")));
    EXPECT_EQ(largestDifference(readPicture(path("old.png")), picture), 0);
}

TEST_F(KrImageConvert, PpmHeadersMayHaveCommentsAndOtherMaxima) {
    const std::string text = "P5 # grey\n# two\n2 1\n#x\n15\n";
    Bytes bytes(text.begin(), text.end());
    bytes.insert(bytes.end(), {0, 15});
    writeAll(path("a.pgm"), bytes);
    const Picture result = readPicture(path("a.pgm"));
    EXPECT_TRUE(result.isGrey);
    EXPECT_EQ(result.rgb, (Bytes{0, 0, 0, 255, 255, 255}));
}

TEST_F(KrImageConvert, InfoAlsoShowsPictures) {
    writePicture(picture, path("a.png"));
    const Outcome outcome = kr({"image", "info", path("a.png")});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, HasSubstr("  format        png\n  size          64x48 pixels\n"));
}

TEST_F(KrImageConvert, DumpShowsTheFieldsOfTheImage) {
    const Outcome outcome = kr({"image", "dump", writeOxi("a.oxi", KR::kYUV422ColorSpace)});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, HasSubstr("\nWidth         : 64\nHeight        : 48\nNbLayers      : 2\n"));
    EXPECT_THAT(outcome.out, HasSubstr("TimeStamp     : 1500000000123456\n"));
    KRImage tiny(1, 1, KR::kLumaColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    ASSERT_TRUE(tiny.writeFile(path("tiny.oxi").c_str()));
    EXPECT_EQ(kr({"image", "dump", path("tiny.oxi")}).exitCode, 0);
    EXPECT_EQ(kr({"image", "dump", path("missing.oxi")}).exitCode, 1);
}

TEST_F(KrImageConvert, ATruncatedJpegIsRefusedAndTheQualityCanBeSet) {
    writePicture(picture, path("a.png"));
    EXPECT_EQ(convert("a.png", "good.jpg", {"--quality", "100"}).exitCode, 0);
    EXPECT_EQ(convert("a.png", "small.jpg", {"--quality", "1"}).exitCode, 0);
    EXPECT_LT(readAll(path("small.jpg")).size(), readAll(path("good.jpg")).size());
    EXPECT_LE(largestDifference(readPicture(path("good.jpg")), picture), 4);
    Bytes cut = readAll(path("good.jpg"));
    cut.resize(cut.size() - 40); // within the pixels
    writeAll(path("cut.jpg"), cut);
    const Outcome outcome = convert("cut.jpg", "b.png");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("cut.jpg: "));
    EXPECT_FALSE(std::filesystem::exists(path("b.png")));
}

TEST_F(KrImageConvert, AGreyPictureIsGreyInEveryFormat) {
    Picture grey = picture;
    std::fill(grey.rgb.begin(), grey.rgb.end(), static_cast<unsigned char>(77));
    grey.isGrey = true;
    for (const std::string format : {"png", "jpg"}) {
        writePicture(grey, path("g." + format));
        EXPECT_TRUE(readPicture(path("g." + format)).isGrey) << format;
        EXPECT_EQ(readPicture(path("g." + format)).rgb, grey.rgb) << format;
    }
}

} // namespace
