#include "krvision/krimage.hpp"

#include "krplatform/krlog.hpp"
#include "krwrappingproduct.hpp"
#include "temporaryfolder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using KR::KRImage;
using KR::KRLogRecord;
using KR::test::append;
using KR::test::Bytes;
using KR::test::readAll;
using KR::test::writeAll;

constexpr std::uint32_t kVersion1 = 0x4F584931;
constexpr std::uint32_t kVersion0 = 0x4F584930;
constexpr std::size_t kHeaderSize = 48;
constexpr std::size_t kVersion0HeaderSize = 32;

KRImage makeFileImage(int width, int height, int colorSpace, bool emptyBuffer = false) {
    return {width, height, colorSpace, emptyBuffer, 0.5f, 0.25f, -0.5f, -0.25f};
}

Bytes makeFile(std::uint32_t version, int width, int height, int layers, int colorSpace, std::size_t pixels) {
    Bytes file;
    append(file, version);
    for (const int field : {width, height, layers, colorSpace}) {
        append(file, field);
    }
    append(file, std::int64_t{1500000000123456});
    append(file, std::int32_t{0x1FE}); // camera -2
    if (version == kVersion1) {
        for (const float angle : {0.1f, 0.2f, -0.3f, -0.4f}) {
            append(file, angle);
        }
    }
    for (std::size_t i = 0; i < pixels; ++i) {
        file.push_back(static_cast<unsigned char>(i * 7 + 1));
    }
    return file;
}

// What a refused file must leave unchanged.
struct Snapshot {
    int width, height, nbLayers, colorSpace, cameraId, allocatedSize, allocatedResolution, allocatedLayers;
    std::int64_t timeStamp;
    float leftAngle, topAngle, rightAngle, bottomAngle;
    const unsigned char* data;

    explicit Snapshot(const KRImage& image)
        : width(image.width), height(image.height), nbLayers(image.nbLayers), colorSpace(image.colorSpace),
          cameraId(image.cameraId), allocatedSize(image.allocatedSize),
          allocatedResolution(image.allocatedResolution), allocatedLayers(image.allocatedLayers),
          timeStamp(image.timeStamp), leftAngle(image.leftAngle), topAngle(image.topAngle),
          rightAngle(image.rightAngle), bottomAngle(image.bottomAngle), data(image.data.get()) {}
    bool operator==(const Snapshot&) const = default;
};

class KRImageFile : public testing::Test {
protected:
    std::string path(const std::string& name = "image.oxi") const { return folder_.path(name); }
    bool read(KRImage& image, const Bytes& file) const {
        writeAll(path(), file);
        return image.readFile(path().c_str());
    }
    // The errors logged since the last call, each as "category: message".
    std::vector<std::string> takeErrors() {
        KR::flushLog();
        return std::exchange(errors_, {});
    }

    const std::vector<std::string> kNothing = {};
    const std::vector<std::string> kNotOxi = {
        "vision.krimage: readFile: Error while reading image: not an .oxi format"};
    const std::vector<std::string> kNotCompatible = {
        "vision.krimage: readFile: external buffer not compatible."};

private:
    const KR::test::TemporaryFolder folder_;
    std::vector<std::string> errors_;
    const KR::KRLogListener listener_{[this](const KRLogRecord& record) {
        if (record.level == KR::KRLogLevel::Error) {
            errors_.push_back(record.category + ": " + record.message);
        }
    }};
};

// ---- writing

// The example of docs/oxi.md.
TEST_F(KRImageFile, HoldsTheHeaderAndThePixels) {
    KRImage image(2, 1, 9, false, 0.5f, 0.25f, -0.5f, -0.25f);
    image.timeStamp = 1500000000123456;
    image.cameraId = -2;
    const unsigned char pixels[] = {10, 20, 30, 40};
    std::memcpy(image.data.get(), pixels, sizeof pixels);
    EXPECT_TRUE(image.writeFile(path().c_str()));
    EXPECT_EQ(readAll(path()), (Bytes{
                                   0x31, 0x49, 0x58, 0x4f, 0x02, 0x00, 0x00, 0x00, //
                                   0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, //
                                   0x09, 0x00, 0x00, 0x00, 0x40, 0xa2, 0x2b, 0xf7, //
                                   0x3d, 0x54, 0x05, 0x00, 0xfe, 0xff, 0xff, 0xff, //
                                   0x00, 0x00, 0x00, 0x3f, 0x00, 0x00, 0x80, 0x3e, //
                                   0x00, 0x00, 0x00, 0xbf, 0x00, 0x00, 0x80, 0xbe, //
                                   0x0a, 0x14, 0x1e, 0x28,
                               }));
}

TEST_F(KRImageFile, OfTwoLayersAt160x120HasItsBytesAndBeginsWith1IXO) {
    EXPECT_TRUE(makeFileImage(160, 120, 9).writeFile(path().c_str()));
    const Bytes file = readAll(path());
    ASSERT_EQ(file.size(), kHeaderSize + 38400);
    EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "1IXO");
}

TEST_F(KRImageFile, HoldsThePixelsOfTheGeometryNotTheWholeBuffer) {
    KRImage image(2, 9, false, 0, 0, 0, 0);
    image.setResolution(0);
    EXPECT_TRUE(image.writeFile(path().c_str()));
    EXPECT_EQ(std::filesystem::file_size(path()), kHeaderSize + 38400);
}

TEST_F(KRImageFile, ReplacesAnExistingFile) {
    writeAll(path(), Bytes(1000, 7));
    EXPECT_TRUE(makeFileImage(2, 1, 9).writeFile(path().c_str()));
    EXPECT_EQ(std::filesystem::file_size(path()), kHeaderSize + 4);
}

TEST_F(KRImageFile, IsWrittenFromAnExternalBuffer) {
    Bytes pixels = {1, 2, 3, 4};
    KRImage image = makeFileImage(2, 1, 9, true);
    image.data = KRImage::externalData(pixels.data());
    EXPECT_TRUE(image.writeFile(path().c_str()));
    const Bytes file = readAll(path());
    EXPECT_EQ(Bytes(file.begin() + kHeaderSize, file.end()), pixels);
}

TEST_F(KRImageFile, WithoutPixelsIsAHeader) {
    EXPECT_TRUE(makeFileImage(0, 0, 9).writeFile(path().c_str()));
    EXPECT_TRUE(makeFileImage(0, 0, 9, true).writeFile(path("null.oxi").c_str()));
    EXPECT_EQ(std::filesystem::file_size(path()), kHeaderSize);
    KRImage image = makeFileImage(0, 0, 9);
    EXPECT_TRUE(image.readFile(path().c_str()));
}

TEST_F(KRImageFile, IsNotWrittenWithoutAFolderOrSpace) {
    const KRImage image = makeFileImage(2, 1, 9);
    EXPECT_FALSE(image.writeFile(path("missing/image.oxi").c_str()));
    EXPECT_FALSE(image.writeFile("/dev/full"));
    EXPECT_FALSE(makeFileImage(640, 480, 9).writeFile("/dev/full"));
    EXPECT_FALSE(makeFileImage(0, 0, 9).writeFile("/dev/full"));
    EXPECT_EQ(takeErrors(), kNothing);
}

TEST_F(KRImageFile, IsNotWrittenIfPixelsAreMissing) {
    EXPECT_FALSE(makeFileImage(2, 1, 9, true).writeFile(path().c_str()));
    EXPECT_FALSE(makeFileImage(-1, 1, 9, true).writeFile(path().c_str()));
    KRImage image(7, 9, false, 0, 0, 0, 0);
    image.setResolution(2); // keeps the buffer of 80x60
    EXPECT_FALSE(image.writeFile(path().c_str()));
    EXPECT_FALSE(std::filesystem::exists(path()));
}

// ---- reading

TEST_F(KRImageFile, RoundTripKeepsTheImage) {
    KRImage image = makeFileImage(100, 30, 13);
    for (int i = 0; i < image.allocatedSize; ++i) {
        image.data[i] = static_cast<unsigned char>(i * 31);
    }
    image.timeStamp = std::numeric_limits<std::int64_t>::min() + 5;
    image.cameraId = -128;
    ASSERT_TRUE(image.writeFile(path().c_str()));
    KRImage copy(0, 9, false, 0, 0, 0, 0);
    ASSERT_TRUE(copy.readFile(path().c_str()));
    EXPECT_EQ(copy.width, 100);
    EXPECT_EQ(copy.height, 30);
    EXPECT_EQ(copy.nbLayers, 3);
    EXPECT_EQ(copy.colorSpace, 13);
    EXPECT_EQ(copy.timeStamp, image.timeStamp);
    EXPECT_EQ(copy.cameraId, -128);
    EXPECT_EQ(copy.leftAngle, 0.5f);
    EXPECT_EQ(copy.topAngle, 0.25f);
    EXPECT_EQ(copy.rightAngle, -0.5f);
    EXPECT_EQ(copy.bottomAngle, -0.25f);
    EXPECT_EQ(std::memcmp(copy.data.get(), image.data.get(), 9000), 0);
}

// With the same geometry, the rest of the header is dropped: deliberate.
TEST_F(KRImageFile, WithTheSameGeometryChangesOnlyThePixels) {
    KRImage image = makeFileImage(4, 2, 14);
    image.timeStamp = 77;
    image.cameraId = 5;
    const Snapshot before(image);
    const Bytes file = makeFile(kVersion1, 4, 2, 2, 9, 16);
    EXPECT_TRUE(read(image, file));
    EXPECT_EQ(Snapshot(image), before);
    EXPECT_EQ(Bytes(image.data.get(), image.data.get() + 16), Bytes(file.begin() + kHeaderSize, file.end()));
}

TEST_F(KRImageFile, WithTheSameGeometryIsReadIntoAnExternalBuffer) {
    Bytes pixels(17, 0xA5);
    KRImage image = makeFileImage(4, 2, 9, true);
    image.data = KRImage::externalData(pixels.data());
    Bytes expected = makeFile(kVersion0, 4, 2, 2, 9, 16);
    EXPECT_TRUE(read(image, expected));
    expected.erase(expected.begin(), expected.begin() + kVersion0HeaderSize);
    expected.push_back(0xA5);
    EXPECT_EQ(pixels, expected);
    EXPECT_EQ(image.leftAngle, 0.5f); // version 0 or not, the header is dropped
}

TEST_F(KRImageFile, WithAnotherGeometryReplacesHeaderAndBuffer) {
    KRImage image(1, 13, false, 0, 0, 0, 0);
    const KRImage sharing = image;
    EXPECT_TRUE(read(image, makeFile(kVersion1, 640, 480, 2, 9, 614400)));
    EXPECT_EQ(image.width, 640);
    EXPECT_EQ(image.height, 480);
    EXPECT_EQ(image.nbLayers, 2);
    EXPECT_EQ(image.colorSpace, 9);
    EXPECT_EQ(image.timeStamp, 1500000000123456);
    EXPECT_EQ(image.cameraId, -2); // the low 8 bits
    EXPECT_EQ(image.leftAngle, 0.1f);
    EXPECT_EQ(image.topAngle, 0.2f);
    EXPECT_EQ(image.rightAngle, -0.3f);
    EXPECT_EQ(image.bottomAngle, -0.4f);
    EXPECT_EQ(image.data[614399], static_cast<unsigned char>(614399 * 7 + 1));
    EXPECT_TRUE(image.ownsData());
    EXPECT_EQ(sharing.data[0], 0);
}

// Reading a file does not change what the buffer was sized for: deliberate.
TEST_F(KRImageFile, DoesNotChangeWhatTheBufferWasSizedFor) {
    KRImage image(1, 13, false, 0, 0, 0, 0);
    EXPECT_TRUE(read(image, makeFile(kVersion1, 2, 1, 2, 9, 4)));
    EXPECT_EQ(image.allocatedSize, 320 * 240 * 3);
    EXPECT_EQ(image.allocatedResolution, 1);
    EXPECT_EQ(image.allocatedLayers, 3);
}

TEST_F(KRImageFile, WithAnotherGeometryLeavesAnImageThatCanBeDeepCopied) {
    KRImage small = makeFileImage(4, 2, 9);
    ASSERT_TRUE(read(small, makeFile(kVersion1, 40, 30, 2, 9, 2400)));
    const KRImage grown = small.deepCopy(); // more than allocatedSize
    EXPECT_EQ(std::memcmp(grown.data.get(), small.data.get(), 2400), 0);
    KRImage large = makeFileImage(40, 30, 9);
    ASSERT_TRUE(read(large, makeFile(kVersion1, 4, 2, 2, 9, 16)));
    const KRImage shrunk = large.deepCopy(); // less than that
    EXPECT_EQ(std::memcmp(shrunk.data.get(), large.data.get(), 16), 0);
}

TEST_F(KRImageFile, WithAnotherGeometryNeedsAnOwnedBuffer) {
    Bytes pixels(320 * 240 * 2);
    KRImage external = makeFileImage(320, 240, 9, true);
    external.data = KRImage::externalData(pixels.data());
    KRImage none = makeFileImage(320, 240, 9, true);
    KRImage reset = makeFileImage(320, 240, 9, true);
    reset.data.reset();
    for (KRImage* image : {&external, &none, &reset}) {
        const Snapshot before(*image);
        EXPECT_FALSE(read(*image, makeFile(kVersion1, 640, 480, 2, 9, 614400)));
        EXPECT_EQ(takeErrors(), kNotCompatible);
        EXPECT_EQ(Snapshot(*image), before);
    }
}

TEST_F(KRImageFile, WithOtherLayersHasAnotherGeometry) {
    KRImage image = makeFileImage(4, 2, 9);
    EXPECT_TRUE(read(image, makeFile(kVersion1, 4, 2, 3, 13, 24)));
    EXPECT_EQ(image.nbLayers, 3);
    EXPECT_EQ(image.colorSpace, 13);
    EXPECT_EQ(image.data[23], 23 * 7 + 1);
}

TEST_F(KRImageFile, WithTheSameGeometryIsRefusedByAnImageWithMissingPixels) {
    KRImage none = makeFileImage(4, 2, 9, true);
    EXPECT_FALSE(read(none, makeFile(kVersion1, 4, 2, 2, 9, 16)));
    KRImage image(7, 9, false, 0, 0, 0, 0);
    image.setResolution(2); // keeps the buffer of 80x60
    EXPECT_FALSE(read(image, makeFile(kVersion1, 640, 480, 2, 9, 614400)));
    EXPECT_EQ(takeErrors(), kNothing);
}

TEST_F(KRImageFile, WithTheSameGeometryIsReadIntoAnOwnedBufferMadeByTheCaller) {
    KRImage image = makeFileImage(4, 2, 9, true);
    image.data = {new unsigned char[16], KRImage::deleter{false}};
    EXPECT_TRUE(read(image, makeFile(kVersion1, 4, 2, 2, 9, 16)));
    EXPECT_EQ(image.data[15], 15 * 7 + 1);
}

TEST_F(KRImageFile, Version0HasTheDefaultAngles) {
    KRImage image = makeFileImage(1, 1, 9);
    EXPECT_TRUE(read(image, makeFile(kVersion0, 4, 2, 2, 9, 16)));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(image.leftAngle), 0x3ED576D4u);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(image.topAngle), 0x3EA45733u);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(image.rightAngle), 0xBED576D4u);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(image.bottomAngle), 0xBEA45733u);
    EXPECT_EQ(image.timeStamp, 1500000000123456);
    EXPECT_EQ(image.cameraId, -2);
    EXPECT_EQ(image.data[0], 1);
    EXPECT_EQ(image.data[15], 15 * 7 + 1);
}

TEST_F(KRImageFile, WithAnUnknownColorSpaceIsReadUnchanged) {
    KRImage image = makeFileImage(1, 1, 9);
    EXPECT_TRUE(read(image, makeFile(kVersion1, 4, 2, 5, 99, 40)));
    EXPECT_EQ(image.colorSpace, 99);
    EXPECT_EQ(image.nbLayers, 5);
    EXPECT_EQ(image.data[39], static_cast<unsigned char>(39 * 7 + 1));
}

TEST_F(KRImageFile, MayHaveBytesAfterThePixels) {
    KRImage image = makeFileImage(4, 2, 9);
    EXPECT_TRUE(read(image, makeFile(kVersion1, 4, 2, 2, 9, 1000)));
}

TEST_F(KRImageFile, InAnotherFormatIsRefusedWithAMessage) {
    KRImage image = makeFileImage(4, 2, 9);
    const Snapshot before(image);
    for (const std::uint32_t magic : {0x4F584932u, 0x3149584Fu, 0x4F585631u, 0u, 0xFFFFFFFFu}) {
        Bytes file;
        append(file, magic);
        EXPECT_FALSE(read(image, file));
        EXPECT_EQ(takeErrors(), kNotOxi);
    }
    EXPECT_EQ(Snapshot(image), before);
}

TEST_F(KRImageFile, MissingOrEmptyOrAFolderIsRefusedWithoutAMessage) {
    KRImage image = makeFileImage(4, 2, 9);
    EXPECT_FALSE(image.readFile(path("missing.oxi").c_str()));
    EXPECT_FALSE(image.readFile(path("").c_str()));
    EXPECT_FALSE(read(image, {}));
    EXPECT_EQ(takeErrors(), kNothing);
}

// ---- hostile files

TEST_F(KRImageFile, TruncatedInTheHeaderChangesNothing) {
    for (const std::uint32_t version : {kVersion0, kVersion1}) {
        const std::size_t headerSize = version == kVersion1 ? kHeaderSize : kVersion0HeaderSize;
        for (std::size_t size = 0; size < headerSize; ++size) {
            KRImage image = makeFileImage(1, 1, 9);
            const Snapshot before(image);
            Bytes file = makeFile(version, 4, 2, 2, 9, 0);
            file.resize(size);
            EXPECT_FALSE(read(image, file)) << size << " bytes";
            EXPECT_EQ(Snapshot(image), before) << size << " bytes";
        }
    }
    EXPECT_EQ(takeErrors(), kNothing);
}

TEST_F(KRImageFile, TruncatedInThePixelsStillSetsTheHeader) {
    for (std::size_t pixels = 0; pixels < 16; ++pixels) {
        KRImage image = makeFileImage(1, 1, 13);
        const Bytes file = makeFile(kVersion1, 4, 2, 2, 9, pixels);
        EXPECT_FALSE(read(image, file));
        EXPECT_EQ(image.width, 4);
        EXPECT_EQ(image.height, 2);
        EXPECT_EQ(image.nbLayers, 2);
        EXPECT_EQ(image.colorSpace, 9);
        EXPECT_EQ(image.timeStamp, 1500000000123456);
        std::fill_n(image.data.get() + pixels, 16 - pixels, static_cast<unsigned char>(0)); // accessible
        EXPECT_TRUE(std::equal(file.begin() + kHeaderSize, file.end(), image.data.get()));
    }
}

TEST_F(KRImageFile, TruncatedInThePixelsWithTheSameGeometryIsRefused) {
    KRImage image = makeFileImage(4, 2, 14);
    image.timeStamp = 77;
    const Snapshot before(image);
    EXPECT_FALSE(read(image, makeFile(kVersion1, 4, 2, 2, 9, 15)));
    EXPECT_EQ(Snapshot(image), before);
    EXPECT_EQ(takeErrors(), kNothing);
}

TEST_F(KRImageFile, TooShortForItsPixelsIsRefusedBeforeAllocation) {
    KRImage image = makeFileImage(1, 1, 9);
    const Snapshot before(image);
    EXPECT_FALSE(read(image, makeFile(kVersion1, 32767, 32767, 2, 9, 100)));
    EXPECT_FALSE(read(image, makeFile(kVersion0, 2560 * 1920 * 12 + 1, 1, 1, 0, 100)));
    EXPECT_EQ(Snapshot(image), before);
}

TEST_F(KRImageFile, WithUnusuallyManyPixelsIsReadIfItHoldsThem) {
    constexpr int kSize = 2560 * 1920 * 12 + 1;
    writeAll(path(), makeFile(kVersion0, kSize, 1, 1, 0, 1));
    std::filesystem::resize_file(path(),
                                 kVersion0HeaderSize + std::uintmax_t{kSize}); // a hole except for one byte
    KRImage image = makeFileImage(1, 1, 9);
    EXPECT_TRUE(image.readFile(path().c_str()));
    EXPECT_EQ(image.width, kSize);
    EXPECT_EQ(image.data[0], 1);
    EXPECT_EQ(image.data[kSize - 1], 0);
    std::filesystem::resize_file(path(), kVersion0HeaderSize + std::uintmax_t{kSize} - 1);
    KRImage other = makeFileImage(1, 1, 9);
    EXPECT_FALSE(other.readFile(path().c_str()));
    EXPECT_EQ(other.width, 1);
}

TEST_F(KRImageFile, WithANegativeSizeIsNotAllocated) {
    KRImage image = makeFileImage(1, 1, 9);
    const Snapshot before(image);
    EXPECT_THROW(read(image, makeFile(kVersion1, -4, 2, 2, 9, 16)), std::bad_alloc);
    EXPECT_THROW(read(image, makeFile(kVersion1, 65536, 32768, 1, 9, 16)), std::bad_alloc);
    EXPECT_EQ(Snapshot(image), before);
    KRImage negative = makeFileImage(-4, 2, 9, true);
    EXPECT_FALSE(read(negative, makeFile(kVersion1, -4, 2, 2, 9, 16))); // fits, but there is no such buffer
}

TEST_F(KRImageFile, WithRandomBytesStaysWithinTheBuffer) {
    std::mt19937 random(1);
    KRImage image = makeFileImage(4, 2, 9);
    for (int i = 0; i < 1000; ++i) {
        Bytes file = makeFile(i % 2 == 0 ? kVersion1 : kVersion0, 4, 2, 2, 9, 16);
        for (auto changes = 1 + random() % 3; changes > 0; --changes) {
            file[4 + random() % (file.size() - 4)] = static_cast<unsigned char>(random() >> (random() % 8));
        }
        file.resize(file.size() - random() % 3);
        try {
            read(image, file);
        } catch (const std::bad_alloc&) {
        }
        const int size = KR::wrappingProduct(image.width, image.height, image.nbLayers);
        ASSERT_GE(size, 0);
        if (size > 0) {
            image.data[0] = image.data[size - 1]; // both are accessible
        }
        if (size > 1000000) {
            image = makeFileImage(4, 2, 9);
        }
    }
}

} // namespace
