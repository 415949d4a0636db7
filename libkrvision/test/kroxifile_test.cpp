#include "krvision/kroxifile.hpp"

#include "krvision/krimage.hpp"
#include "krvision/krvisiondefinitions.hpp"
#include "temporaryfolder.hpp"

#include <gmock/gmock.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

using KR::findProblems;
using KR::KRImage;
using KR::KROxiHeader;
using KR::readOxi;
using KR::readOxiHeader;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace KR::test;

class KROxiFile : public testing::Test {
protected:
    std::string path(const std::string& name) const { return folder_.path(name); }
    std::string write(const std::string& name, const Bytes& bytes) const {
        writeAll(path(name), bytes);
        return path(name);
    }
    // 4x2 pixels of YUV422: 48 bytes of header, 16 of pixels.
    Bytes makeFile() const {
        KRImage image(4, 2, KR::kYUV422ColorSpace, false, 0.5f, 0.25f, -0.5f, -0.25f);
        image.timeStamp = 1500000000123456;
        image.cameraId = -2;
        for (int i = 0; i < 16; ++i) {
            image.data[i] = static_cast<unsigned char>(i);
        }
        EXPECT_TRUE(image.writeFile(path("made.oxi").c_str()));
        return readAll(path("made.oxi"));
    }
    std::string writeWith(std::size_t offset, std::int32_t field) const {
        Bytes bytes = makeFile();
        std::memcpy(bytes.data() + offset, &field, sizeof field);
        return write("changed.oxi", bytes);
    }

private:
    const TemporaryFolder folder_;
};

std::string getOxiError(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

TEST_F(KROxiFile, ReadsTheHeaderAndTheImage) {
    const std::string file = write("a.oxi", makeFile());
    EXPECT_TRUE(KR::isOxiFile(file));
    const KROxiHeader header = readOxiHeader(file);
    EXPECT_EQ(header.version, 1);
    EXPECT_EQ(header.width, 4);
    EXPECT_EQ(header.height, 2);
    EXPECT_EQ(header.layers, 2);
    EXPECT_EQ(header.colorSpace, KR::kYUV422ColorSpace);
    EXPECT_EQ(header.timeStamp, 1500000000123456);
    EXPECT_EQ(header.cameraId, -2);
    EXPECT_THAT(header.angles, ElementsAre(0.5f, 0.25f, -0.5f, -0.25f));
    EXPECT_EQ(header.getPixelsOffset(), 48u);
    EXPECT_EQ(header.countPixelBytes(), 16u);
    EXPECT_EQ(header.fileSize, 64u);
    EXPECT_THAT(findProblems(header), IsEmpty());
    const KRImage image = readOxi(file);
    EXPECT_EQ(image.timeStamp, 1500000000123456);
    EXPECT_EQ(image.data[15], 15);
}

TEST_F(KROxiFile, Version0HasTheDefaultAngles) {
    Bytes bytes = makeFile();
    bytes[0] = '0';
    bytes.erase(bytes.begin() + 32, bytes.begin() + 48);
    const KROxiHeader header = readOxiHeader(write("a.oxi", bytes));
    EXPECT_EQ(header.version, 0);
    EXPECT_EQ(header.getPixelsOffset(), 32u);
    EXPECT_FLOAT_EQ(header.angles[0], 0.4169222f);
    EXPECT_FLOAT_EQ(header.angles[3], -0.32097778f);
    EXPECT_EQ(readOxi(path("a.oxi")).data[15], 15);
}

TEST_F(KROxiFile, ReportsWhyTheHeaderCannotBeRead) {
    const std::string other = write("other", Bytes(100, 'x'));
    EXPECT_FALSE(KR::isOxiFile(other));
    EXPECT_FALSE(KR::isOxiFile(write("empty", {})));
    EXPECT_EQ(getOxiError([&] { readOxiHeader(other); }), other + ": not an oxi file");
    const std::string cut = write("cut", {'1', 'I', 'X', 'O', 0});
    EXPECT_EQ(getOxiError([&] { readOxiHeader(cut); }), cut + ": ends within its header, after 5 bytes");
    EXPECT_EQ(getOxiError([&] { readOxiHeader(path("")); }), path("") + ": cannot be read: Is a directory");
    EXPECT_EQ(getOxiError([&] { KR::isOxiFile(path("missing")); }),
              path("missing") + ": cannot be read: No such file or directory");
}

TEST_F(KROxiFile, NeverBlocksOnAPipe) {
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(getOxiError([&] { readOxi(path("pipe")); }),
              path("pipe") + ": cannot be read: not a regular file");
}

TEST_F(KROxiFile, RefusesSizesThatKRImageDoesNotCheck) {
    // 65536 * 65536 * 2 wraps to 0 bytes in 32 bits, (2^30 + 2) * 2 * 2 to 8.
    Bytes bytes = makeFile();
    const std::int32_t side = 65536;
    std::memcpy(bytes.data() + 4, &side, sizeof side);
    std::memcpy(bytes.data() + 8, &side, sizeof side);
    std::string file = write("square.oxi", bytes);
    KRImage image(0, 0, KR::kLumaColorSpace, false, 0.0f, 0.0f, 0.0f, 0.0f);
    EXPECT_TRUE(image.readFile(file.c_str()));
    EXPECT_EQ(image.width, 65536);
    EXPECT_EQ(getOxiError([&] { readOxi(file); }), file + ": no image has 65536x65536 pixels of 2 bytes");

    file = writeWith(4, (1 << 30) + 2);
    EXPECT_TRUE(image.readFile(file.c_str()));
    EXPECT_EQ(getOxiError([&] { readOxi(file); }), file + ": no image has 1073741826x2 pixels of 2 bytes");
}

TEST_F(KROxiFile, RefusesImpossibleGeometryAndMissingPixels) {
    std::string file = writeWith(4, -4);
    EXPECT_EQ(getOxiError([&] { readOxi(file); }), file + ": no image has -4x2 pixels of 2 bytes");
    file = writeWith(4, 5);
    EXPECT_EQ(getOxiError([&] { readOxi(file); }),
              file + ": the file ends within the pixels: it has 64 bytes and needs 68");
    file = writeWith(16, 27);
    EXPECT_EQ(getOxiError([&] { readOxi(file); }), file + ": colour space 27 does not exist");
    file = writeWith(16, 0);
    EXPECT_EQ(getOxiError([&] { readOxi(file); }), file + ": a pixel in colour space 0 has 1 bytes, not 2");
    EXPECT_THAT(
        findProblems(readOxiHeader(writeWith(12, 12))),
        ElementsAre(HasSubstr("ends within the pixels"), HasSubstr("colour space 9 has 2 bytes, not 12")));
}

} // namespace
