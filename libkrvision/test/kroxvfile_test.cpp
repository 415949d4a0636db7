#include "krvision/kroxvfile.hpp"

#include "krvision/kroxvrepair.hpp"
#include "krvision/krvisiondefinitions.hpp"
#include "oxvfile.hpp"

#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

using namespace KR::test;
using KR::KRImage;
using KR::streamHeader;
using KR::oxv::kNeverClosed;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::size_t kChunkPixels = 160 * 120;

class KROxvFile : public testing::Test {
protected:
    std::string path(const std::string& name = "video.oxv") const { return folder_.path(name); }
    std::string write(const Bytes& bytes) const {
        writeAll(path(), bytes);
        return path();
    }
    static Bytes makeFile(unsigned frames, unsigned streams, std::uint32_t count, std::uint32_t extra = 0) {
        Bytes file = makeOxvHeader(kOxvVersion1, extra, count, streams,
                                   std::vector<streamHeader>(streams, streamHeader{160, 120, kLuma, 8}));
        for (unsigned frame = 0; frame < frames; ++frame) {
            for (unsigned stream = 0; stream < streams; ++stream) {
                appendChunk(file, frame, stream, kChunkPixels);
            }
        }
        return file;
    }

private:
    const TemporaryFolder folder_;
};

std::string getOxvError(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

TEST_F(KROxvFile, ReadsFramesOfEveryStream) {
    const KR::KROxvFile file(write(makeFile(3, 2, 3)));
    EXPECT_EQ(file.getVersion(), 1);
    EXPECT_EQ(file.countCompleteFrames(), 3u);
    EXPECT_EQ(file.countAddressableFrames(), 3u);
    EXPECT_EQ(file.countCutBytes(), 0u);
    EXPECT_EQ(file.getFrameSize(), 2 * kChunkPixels);
    EXPECT_EQ(file.getOffset(1, 1), 48 + 3 * kChunkPixels);
    for (unsigned stream = 0; stream < 2; ++stream) {
        KRImage image = file.makeImage(stream);
        for (unsigned frame = 0; frame < 3; ++frame) {
            file.readImage(image, frame, stream);
            EXPECT_TRUE(holdsChunk(image, frame, stream, kChunkPixels));
            EXPECT_EQ(image.data[0], image.data[160]) << "the row below replaces the chunk header";
            EXPECT_EQ(image.data[24], image.data[184]);
            EXPECT_EQ(image.bottomAngle, -0.25f);
            EXPECT_EQ(file.readChunkHeader(frame, stream).timeStamp, timeStampOf(frame, stream));
        }
    }
}

TEST_F(KROxvFile, Version0HasTheDefaultAngles) {
    Bytes bytes = makeFile(1, 1, 1);
    bytes[0] = '0';
    const KR::KROxvFile file(write(bytes));
    KRImage image = file.makeImage(0);
    file.readImage(image, 0, 0);
    EXPECT_EQ(file.getVersion(), 0);
    EXPECT_FLOAT_EQ(image.leftAngle, 0.4169222f);
}

TEST_F(KROxvFile, CountsTheFramesPresentNotThoseOfTheHeader) {
    for (const std::uint32_t count : {kNeverClosed, 0u, 2u, 99u}) {
        Bytes bytes = makeFile(3, 2, count);
        bytes.resize(bytes.size() - 10);
        const KR::KROxvFile file(write(bytes));
        EXPECT_EQ(file.countCompleteFrames(), 2u);
        EXPECT_EQ(file.countCutBytes(), 2 * kChunkPixels - 10);
        EXPECT_EQ(file.getAnnouncedCount(), count);
    }
}

TEST_F(KROxvFile, ExpectsChunksWhereTheHeaderPlacesThem) {
    EXPECT_EQ(KR::KROxvFile(write(makeFile(3, 2, 6))).countExpectedFrames(), 3u);
    EXPECT_EQ(KR::KROxvFile(write(makeFile(3, 2, 3))).countExpectedFrames(), 3u);
    EXPECT_EQ(KR::KROxvFile(write(makeFile(3, 1, 5))).countExpectedFrames(), 5u);
    EXPECT_EQ(KR::KROxvFile(write(makeFile(3, 1, kNeverClosed))).countExpectedFrames(), 3u);
}

TEST_F(KROxvFile, FindsTheFirstFrameWithAndWithoutAnExtraHeader) {
    EXPECT_EQ(KR::KROxvFile(write(makeFile(3, 1, 3, 100))).getDataOffset(), 32u);
    Bytes bytes = makeFile(3, 1, 3, 100);
    bytes.insert(bytes.begin() + 32, 100, 0xEE);
    EXPECT_EQ(KR::KROxvFile(write(bytes)).getDataOffset(), 132u);
}

TEST_F(KROxvFile, ReportsWhyAFileHasNoFrames) {
    EXPECT_THROW(KR::KROxvFile(write(Bytes(100, 'x'))), KR::KRNotOxvError);
    EXPECT_THROW(KR::KROxvFile(write({})), KR::KRNotOxvError);
    const auto reasonOf = [&](const Bytes& bytes) {
        const KR::KROxvFile file(write(bytes));
        EXPECT_FALSE(file.hasFrames());
        EXPECT_EQ(file.countCompleteFrames(), 0u);
        EXPECT_EQ(file.countCutBytes(), 0u);
        EXPECT_EQ(file.countExpectedFrames(), 0u);
        EXPECT_EQ(file.countAddressableFrames(), 0u);
        EXPECT_THROW(file.readChunkHeader(0, 5000), std::out_of_range);
        return getOxvError([&] { file.requireFrames(); });
    };
    EXPECT_EQ(reasonOf({'1', 'V', 'X', 'O', 0}), path() + ": ends within its headers, after 5 bytes");
    EXPECT_EQ(reasonOf(makeOxvHeader(kOxvVersion1, 0, 1, 2, {{160, 120, 0, 8}})),
              path() + ": ends within its headers, after 32 bytes");
    EXPECT_EQ(reasonOf(makeOxvHeader(kOxvVersion1, 0, 1, 2000, std::vector<streamHeader>(2000))),
              path() + ": announces 2000 streams; at most 1024 are supported");
    constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
    for (const streamHeader& stream :
         {streamHeader{0, 120, 0, 8}, streamHeader{160, 120, 27, 8}, streamHeader{160, 120, 0, 0},
          streamHeader{160, 120, 0, 65}, streamHeader{65536, 65536, 0, 8},
          streamHeader{kMost, kMost, kMost, kMost}, streamHeader{4, 6, 0, 8}}) {
        EXPECT_THAT(reasonOf(makeOxvHeader(kOxvVersion1, 0, 1, 2, {{160, 120, 0, 8}, stream})),
                    HasSubstr("stream 1 has an impossible geometry: " + std::to_string(stream.width) + "x"));
    }
}

TEST_F(KROxvFile, ReportsWhatCannotBeRead) {
    const KR::KROxvFile file(write(makeFile(2, 1, 2)));
    KRImage image = file.makeImage(0);
    EXPECT_EQ(getOxvError([&] { file.readImage(image, 2, 0); }),
              path() + ": cannot be read at byte " + std::to_string(32 + 2 * kChunkPixels));
    EXPECT_THROW(file.readImage(image, 0, 1), std::out_of_range);
    EXPECT_THROW(file.makeImage(1), std::out_of_range);
    KRImage small(80, 60, kLuma, false, 0.0f, 0.0f, 0.0f, 0.0f);
    EXPECT_THROW(file.readImage(small, 0, 0), std::invalid_argument);
    image.data = KRImage::emptyData(true);
    EXPECT_THROW(file.readImage(image, 0, 0), std::invalid_argument);
    const KR::KROxvFile deep(write(makeOxvHeader(kOxvVersion1, 0, 0, 1, {{160, 120, 0, 16}})));
    EXPECT_EQ(
        getOxvError([&] { deep.makeImage(0); }),
        path() +
            ": stream 0 cannot be read as images of 8 bits: 160x120 pixels of 16 bits in colour space 0");
    EXPECT_EQ(getOxvError([&] { KR::KROxvFile(path("missing")); }),
              path("missing") + ": cannot be read: No such file or directory");
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(getOxvError([&] { KR::KROxvFile(path("pipe")); }),
              path("pipe") + ": cannot be read: not a regular file");
}

TEST_F(KROxvFile, DistinguishesPlausibleAnglesFromPixels) {
    EXPECT_TRUE((KR::KROxvChunkHeader{0, 0, {0.5f, 0.25f, -0.5f, 0.0f}}).isPlausible());
    for (const float angle : {7.0f, -7.0f, 1e-20f, std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_FALSE((KR::KROxvChunkHeader{0, 0, {0.5f, angle, 0.0f, 0.0f}}).isPlausible());
    }
}

// ---- the writer

KRImage makeImage(unsigned frame, unsigned stream) {
    KRImage image = makeEmptyImage();
    image.timeStamp = timeStampOf(frame, stream);
    image.cameraId = static_cast<signed char>(stream);
    for (std::size_t at = 0; at < kChunkPixels; ++at) {
        image.data[static_cast<std::ptrdiff_t>(at)] = pixelOf(frame, stream, at);
    }
    return image;
}

TEST_F(KROxvFile, TheReaderGetsEveryFrameThatTheWriterCounted) {
    KR::KROxvWriter writer(path(), {{160, 120, kLuma, 8}, {160, 120, kLuma, 8}});
    for (unsigned frame = 0; frame < 3; ++frame) {
        EXPECT_TRUE(writer.hasRoom());
        const KRImage first = makeImage(frame, 0), second = makeImage(frame, 1);
        writer.write({&first, &second});
    }
    EXPECT_EQ(KR::KROxvFile(path()).getAnnouncedCount(), kNeverClosed);
    writer.close();
    EXPECT_EQ(writer.countFrames(), 3u);
    const KR::KROxvFile file(path());
    EXPECT_EQ(file.getAnnouncedCount(), 3u);
    EXPECT_EQ(file.countCompleteFrames(), 3u);
    KRImage image = file.makeImage(1);
    file.readImage(image, 2, 1);
    EXPECT_TRUE(holdsChunk(image, 2, 1, kChunkPixels));
    EXPECT_THAT(file.readChunkHeader(0, 0).angles, ElementsAre(9.0f, 9.0f, 9.0f, 9.0f));
}

TEST_F(KROxvFile, TheWriterReportsErrorsUnderTheGivenName) {
    EXPECT_EQ(getOxvError([&] {
                  KR::KROxvWriter("/dev/full", {{160, 120, kLuma, 8}}, "my.oxv");
              }),
              "my.oxv: cannot be written: No space left on device");
    EXPECT_EQ(getOxvError([&] { KR::KROxvWriter(path("missing/a.oxv"), {}); }),
              path("missing/a.oxv") + ": cannot be written: No such file or directory");
}

TEST_F(KROxvFile, ACopyHasTheStreamTheFramesAndTheirCount) {
    Bytes bytes = makeFile(4, 2, kNeverClosed);
    bytes.resize(bytes.size() - 1);
    const KR::KROxvFile file(write(bytes));
    unsigned copied = 0;
    copyFrames(file, 1, 2, 1, path("copy.oxv"), "", [&] { ++copied; });
    EXPECT_EQ(copied, 2u);
    const KR::KROxvFile copy(path("copy.oxv"));
    EXPECT_EQ(copy.getAnnouncedCount(), 2u);
    EXPECT_THAT(findProblems(copy), IsEmpty());
    ASSERT_EQ(copy.getStreams().size(), 1u);
    EXPECT_EQ(copy.readChunkHeader(0, 0).timeStamp, timeStampOf(1, 1));

    EXPECT_EQ(getOxvError([&] { copyFrames(file, 0, 1, std::nullopt, "/dev/full", "my.oxv"); }),
              "my.oxv: cannot be written: No space left on device");
    EXPECT_THAT(getOxvError([&] { copyFrames(file, 3, 1, std::nullopt, path("copy.oxv")); }),
                HasSubstr("cannot be read at byte"));
    EXPECT_THROW(copyFrames(file, 0, 1, 2, path("copy.oxv")), std::out_of_range);
}

TEST_F(KROxvFile, LocatesTheProblemsThatItHas) {
    Bytes bytes = makeFile(3, 1, 3);
    bytes[32 + kChunkPixels + 8] = 7; // another camera, and back again
    bytes.resize(bytes.size() - 1);
    unsigned chunks = 0;
    const std::vector<KR::KROxvProblem> problems =
        findProblems(KR::KROxvFile(write(bytes)), [&] { ++chunks; });
    EXPECT_EQ(chunks, 2u);
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0].offset, 8u);
    EXPECT_EQ(problems[0].frame, std::nullopt);
    EXPECT_EQ(problems[0].text, "the header says 3 frames, but there are 2");
    EXPECT_EQ(problems[1].offset, 32 + kChunkPixels);
    EXPECT_EQ(problems[1].frame, 1u);
    EXPECT_EQ(problems[1].stream, 0u);
    EXPECT_EQ(problems[2].text, "the frame is cut: the file has 19199 of its 19200 bytes");
}

TEST_F(KROxvFile, TheWriterRefusesAFrameThatWouldShiftLaterOnes) {
    KR::KROxvWriter writer(path(), {{160, 120, kLuma, 8}}, "my.oxv");
    KRImage image = makeEmptyImage();
    writer.write({&image});
    const KRImage small = makeEmptyImage(80, 60), deep = makeEmptyImage(160, 120, kYuv422);
    EXPECT_EQ(getOxvError([&] { writer.write({&small}); }),
              "my.oxv: an image of 80x60 pixels of 1 bytes does not fit stream 0: 160x120 pixels of 8 bits "
              "in colour "
              "space 0");
    EXPECT_THROW(writer.write({&deep}), std::runtime_error);
    EXPECT_EQ(getOxvError([&] { writer.write({&image, &image}); }), "my.oxv: a frame has 1 images, not 2");
    EXPECT_THROW(writer.write({}), std::runtime_error);
    image.data = KRImage::emptyData(true);
    EXPECT_THROW(writer.write({&image}), std::runtime_error);
    writer.close();
    EXPECT_EQ(KR::KROxvFile(path()).countCompleteFrames(), 1u);
    EXPECT_EQ(KR::KROxvFile(path()).countCutBytes(), 0u);
}

TEST_F(KROxvFile, TheWriterRefusesAnImpossibleGeometry) {
    EXPECT_EQ(getOxvError([&] {
                  KR::KROxvWriter(path(), {{160, 120, kLuma, 8}, {160, 120, 27, 8}});
              }),
              path() + ": a stream has an impossible geometry: 160x120 pixels of 8 bits in colour space 27");
    EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(KROxvFile, TheWriterRemovesAnIncompleteFrame) {
    KR::KROxvWriter writer(path(), {{160, 120, kLuma, 8}});
    const KRImage image = makeImage(0, 0);
    writer.write({&image});
    const std::uintmax_t size = std::filesystem::file_size(path());
    std::filesystem::resize_file(path(), size + 100); // as after a write that failed half-way
    writer.removeCutFrame();
    EXPECT_EQ(std::filesystem::file_size(path()), size);
    writer.write({&image});
    writer.close();
    EXPECT_EQ(KR::KROxvFile(path()).countCompleteFrames(), 2u);
}

} // namespace
