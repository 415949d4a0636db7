#include "program.hpp"

#include "temporaryfolder.hpp"

#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace {

using namespace KR::test;
using KR::KRImage;
using testing::HasSubstr;

class KrImageInfo : public testing::Test {
protected:
    std::string path(const std::string& name) const { return folder_.path(name); }
    std::string write(const std::string& name) const {
        KRImage image(KR::kQVGA, KR::kYUV422ColorSpace, false, 0.5f, 0.25f, -0.5f, -0.25f);
        image.timeStamp = 1500000000123456;
        image.cameraId = -2;
        EXPECT_TRUE(image.writeFile(path(name).c_str()));
        return path(name);
    }

private:
    const TemporaryFolder folder_;
};

TEST_F(KrImageInfo, ShowsTheHeader) {
    const std::string file = write("a.oxi");
    const Outcome run = kr({"image", "info", file});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, file + "\n"
                              "  format        oxi, version 1\n"
                              "  size          320x240 pixels of 2 bytes\n"
                              "  colour space  YUV422 (9)\n"
                              "  taken         2017-07-14 02:40:00.123456 UTC\n"
                              "  camera        -2\n"
                              "  angles        left 0.5, top 0.25, right -0.5, bottom -0.25 rad\n"
                              "  on disk       153648 bytes\n");
}

TEST_F(KrImageInfo, ShowsTheSameAsJson) {
    const std::string file = write("a.oxi");
    const Outcome run = kr({"image", "info", file, file, "--json"});
    EXPECT_EQ(run.exitCode, 0);
    const auto json = nlohmann::json::parse(run.out);
    ASSERT_EQ(json.size(), 2u);
    EXPECT_EQ(json[1]["file"], file);
    EXPECT_EQ(json[1]["width"], 320);
    EXPECT_EQ(json[1]["color_space"], 9);
    EXPECT_EQ(json[1]["time_usec"], 1500000000123456);
    EXPECT_EQ(json[1]["camera"], -2);
    EXPECT_EQ(json[1]["angles_rad"]["bottom"], -0.25);
    EXPECT_EQ(json[1]["problems"].size(), 0u);
}

TEST_F(KrImageInfo, AFileOfAnotherKindFailsButTheOthersAreShown) {
    const std::string file = write("a.oxi");
    writeAll(path("other"), Bytes(100, 'x'));
    writeAll(path("short"), {'1', 'I', 'X', 'O', 0});
    const Outcome run = kr({"image", "info", path("missing"), path("other"), path("short"), path(""), file});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "kr: " + path("missing") + ": cannot be read: No such file or directory\n" + //
                           "kr: " + path("other") + ": is not an oxi, ppm, png or jpeg file\n" +    //
                           "kr: " + path("short") + ": ends within its header, after 5 bytes\n" +   //
                           "kr: " + path("") + ": cannot be read: Is a directory\n");
    EXPECT_THAT(run.out, HasSubstr(file));
}

TEST_F(KrImageInfo, ReportsProblems) {
    Bytes bytes = readAll(write("a.oxi"));
    bytes[12] = 3; // layers
    writeAll(path("layers.oxi"), bytes);
    bytes[7] = 0x70; // width
    writeAll(path("huge.oxi"), bytes);
    const Outcome run = kr({"image", "info", path("layers.oxi"), path("huge.oxi")});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.err, HasSubstr("a pixel in colour space 9 has 2 bytes, not 3"));
    EXPECT_THAT(run.err, HasSubstr("it has 153648 bytes and needs 230448"));
    EXPECT_THAT(run.err, HasSubstr("no image has 1879048512x240 pixels of 3 bytes"));
}

// Appends a chunk of a png file: length, type, data, and a checksum that nothing checks here.
void appendChunk(Bytes& png, const std::string& type, const Bytes& data) {
    const auto size = static_cast<std::uint32_t>(data.size());
    for (const unsigned shift : {24, 16, 8, 0}) {
        png.push_back(static_cast<unsigned char>(size >> shift));
    }
    png.insert(png.end(), type.begin(), type.end());
    png.insert(png.end(), data.begin(), data.end());
    png.insert(png.end(), 4, 0);
}

// A png file of 23,170 x 23,170 pixels.
Bytes makePng(unsigned char depth, unsigned char colorType, std::size_t compressedBytes) {
    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    appendChunk(png, "IHDR", {0, 0, 0x5A, 0x82, 0, 0, 0x5A, 0x82, depth, colorType, 0, 0, 0});
    appendChunk(png, "IDAT", Bytes(compressedBytes));
    appendChunk(png, "IEND", {});
    return png;
}

constexpr long kMuchMemory_kB = 300000; // much less than the pixels of such pictures

TEST_F(KrImageInfo, APngTooShortForItsPixelsIsRefusedBeforeAllocation) {
    writeAll(path("a.png"), makePng(8, 2, 5));
    for (const std::vector<std::string>& verb : std::vector<std::vector<std::string>>{
             {"image", "info", path("a.png")}, {"image", "convert", path("a.png"), path("a.oxi")}}) {
        const Outcome run = kr(verb);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_THAT(run.err, HasSubstr("a.png: has 5 bytes of compressed pixels, too few for 23170x23170\n"));
        EXPECT_LT(run.peakMemory_kB, kMuchMemory_kB);
    }
}

TEST_F(KrImageInfo, OnlyTheHeaderOfALargePictureIsRead) {
    writeAll(path("a.png"), makePng(1, 0, 66000)); // enough if all pixels have one colour
    const Outcome run = kr({"image", "info", path("a.png")});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr("format        png, grey\n  size          23170x23170 pixels\n"));
    EXPECT_LT(run.peakMemory_kB, kMuchMemory_kB);
}

TEST_F(KrImageInfo, ATruncatedPictureIsReported) {
    Bytes png = makePng(1, 0, 66000);
    png.resize(png.size() - 12);
    writeAll(path("a.png"), png);
    EXPECT_THAT(kr({"image", "info", path("a.png")}).err, HasSubstr("a.png: ends within its chunks\n"));
    ASSERT_EQ(kr({"image", "convert", write("a.oxi"), path("a.jpg")}).exitCode, 0);
    EXPECT_EQ(kr({"image", "info", path("a.jpg")}).exitCode, 0);
    Bytes jpeg = readAll(path("a.jpg"));
    jpeg.resize(jpeg.size() - 2);
    writeAll(path("a.jpg"), jpeg);
    EXPECT_THAT(kr({"image", "info", path("a.jpg")}).err, HasSubstr("a.jpg: ends within the pixels\n"));
}

TEST_F(KrImageInfo, AJpegTooShortForItsPixelsIsRefusedBeforeAllocation) {
    ASSERT_EQ(kr({"image", "convert", write("a.oxi"), path("a.jpg")}).exitCode, 0);
    Bytes jpeg = readAll(path("a.jpg"));
    const Bytes frame = {0xFF, 0xC0, 0, 17, 8}; // of a baseline jpeg, then height and width
    const auto size = std::search(jpeg.begin(), jpeg.end(), frame.begin(), frame.end());
    ASSERT_NE(size, jpeg.end());
    std::copy_n(Bytes{0x5A, 0x82, 0x5A, 0x82}.begin(), 4, size + 5);
    writeAll(path("a.jpg"), jpeg);
    const Outcome run = kr({"image", "convert", path("a.jpg"), path("b.oxi")});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.err, HasSubstr(" bytes, too few for 23170x23170 pixels\n"));
    EXPECT_LT(run.peakMemory_kB, kMuchMemory_kB);
}

TEST_F(KrImageInfo, SizesThatWrapAt32BitsAreRefused) {
    for (const auto& [width, height] : std::vector<std::pair<std::int32_t, std::int32_t>>{
             {65536, 65536}, {65536, 65537}, {0x10000000, 32}, {-1, -1}}) {
        Bytes bytes = readAll(write("a.oxi"));
        std::memcpy(bytes.data() + 4, &width, 4);
        std::memcpy(bytes.data() + 8, &height, 4);
        writeAll(path("a.oxi"), bytes);
        EXPECT_EQ(kr({"image", "info", path("a.oxi")}).exitCode, 1) << width;
        EXPECT_EQ(kr({"image", "dump", path("a.oxi")}).exitCode, 1) << width;
        EXPECT_EQ(kr({"image", "convert", path("a.oxi"), path("a.png")}).exitCode, 1) << width;
    }
}

TEST_F(KrImageInfo, ShowsAFileOfVersion0WhichHasNoAngles) {
    KRImage image(2, 1, KR::kYUV422ColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f); // without a time stamp
    ASSERT_TRUE(image.writeFile(path("new.oxi").c_str()));
    Bytes bytes = readAll(path("new.oxi"));
    bytes[0] = '0';
    bytes.erase(bytes.begin() + 32, bytes.begin() + 48);
    writeAll(path("old.oxi"), bytes);
    const Outcome run = kr({"image", "info", path("old.oxi")});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, path("old.oxi") + "\n"
                                         "  format        oxi, version 0\n"
                                         "  size          2x1 pixels of 2 bytes\n"
                                         "  colour space  YUV422 (9)\n"
                                         "  taken         not set\n"
                                         "  camera        0\n"
                                         "  on disk       36 bytes\n");
    bytes.pop_back();
    writeAll(path("old.oxi"), bytes);
    EXPECT_THAT(kr({"image", "info", path("old.oxi")}).err, HasSubstr("it has 35 bytes and needs 36"));
}

} // namespace
