// kr video convert and info with MCAP files

#include "recordings.hpp"

#include <krinterop/krmcaptopics.hpp>

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

namespace {

using namespace KR::test;
using testing::HasSubstr;

class KrVideoMcap : public Recordings {
protected:
    void expectDone(const std::vector<std::string>& arguments) const {
        const Outcome outcome = kr(arguments);
        EXPECT_EQ(outcome.exitCode, 0);
        EXPECT_EQ(outcome.err, "");
    }
    /// Three frames of two streams; some angles are NaN.
    static Bytes makeRecording() {
        Bytes file = make(3, 3, 2);
        put(file, 48 + 13, 0x7FC00001u); // top angle of the first chunk: a NaN with a payload
        put(file, 48 + kChunk + 8, static_cast<unsigned char>(0xFE)); // camera of the second one
        return file;
    }
};

TEST_F(KrVideoMcap, ARecordingSurvivesTheRoundTripByteForByte) {
    const Bytes recording = makeRecording();
    const std::string in = write("in.oxv", recording);
    for (const std::string compression : {"none", "lz4", "zstd"}) {
        expectDone({"video", "convert", in, path("a.mcap"), "--compression", compression});
        expectDone({"video", "convert", path("a.mcap"), path("out.oxv")});
        EXPECT_EQ(readAll(path("out.oxv")), recording) << compression;
    }
}

TEST_F(KrVideoMcap, ConvertsTheSelectedStreamAndFrames) {
    const Bytes recording = makeRecording();
    const std::string in = write("in.oxv", recording);
    expectDone({"video", "convert", in, path("a.mcap"), "--stream", "1", "--from", "1"});
    expectDone({"video", "convert", path("a.mcap"), path("out.oxv"), "--to", "0"});
    expectDone({"video", "convert", in, path("expected.oxv"), "--stream", "1", "--from", "1", "--to", "1"});
    EXPECT_EQ(readAll(path("out.oxv")), readAll(path("expected.oxv")));
    EXPECT_EQ(kr({"video", "convert", path("a.mcap"), path("out.oxv"), "--from", "2"}).exitCode, 1);
}

TEST_F(KrVideoMcap, ATruncatedFileIsConvertedUpToItsLastCompleteChunk) {
    const std::string in = write("in.oxv", make(8, 8));
    expectDone({"video", "convert", in, path("a.mcap"), "--compression", "none"});
    // The same in chunks of two images.
    KR::KRMcapWriterOptions options;
    options.chunkSize = 30000;
    {
        KR::KRMcapReader reader(path("a.mcap"));
        KR::KRMcapWriter writer(path("b.mcap"), options);
        KR::KRMcapRecording copy(writer);
        KR::KRMcapImages images;
        KR::KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
        for (KR::KRMcapMessage message; reader.next(message);) {
            if (images.take(message, image)) {
                copy.writeImage(0, image);
            }
        }
        writer.close();
    }
    Bytes bytes = readAll(path("b.mcap"));
    bytes.resize(bytes.size() / 2);
    const Outcome outcome = kr({"video", "convert", write("cut.mcap", bytes), path("out.oxv")});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err, HasSubstr("never closed"));
    const std::size_t frames = (readAll(path("out.oxv")).size() - 32) / kChunk;
    EXPECT_GE(frames, 2u);
    EXPECT_LE(frames, 4u);
}

TEST_F(KrVideoMcap, InfoShowsTopicsAndImages) {
    const std::string in = write("in.oxv", makeRecording());
    expectDone({"video", "convert", in, path("a.mcap")});
    const Outcome outcome = kr({"video", "info", path("a.mcap")});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.out, HasSubstr("MCAP, indexed"));
    EXPECT_THAT(outcome.out, HasSubstr("sensor_msgs/msg/Image, cdr"));
    EXPECT_THAT(outcome.out, HasSubstr("160x120 pixels"));
    const auto json = nlohmann::json::parse(kr({"video", "info", "--json", path("a.mcap")}).out);
    EXPECT_EQ(json["format"], "mcap");
    EXPECT_EQ(json["messages"], 12);
    ASSERT_EQ(json["streams"].size(), 2u);
    EXPECT_EQ(json["streams"][1]["frames"], 3);
    EXPECT_EQ(json["damage"], nlohmann::json::array());
}

TEST_F(KrVideoMcap, RecoverClosesAFileAndKeepsIntactChunks) {
    KR::KRMcapWriterOptions options;
    options.chunkSize = 30000;
    options.compression = KR::KRMcapCompression::Lz4;
    {
        KR::KRMcapWriter writer(path("a.mcap"), options);
        KR::KRMcapRecording recording(writer);
        KR::KRImage image = makeEmptyImage();
        std::mt19937 random(1); // pixels that do not compress: most of the file is chunks
        for (int i = 0; i < 8; ++i) {
            std::generate_n(image.data.get(), kChunk, [&] { return static_cast<unsigned char>(random()); });
            image.timeStamp = 1000 * i;
            recording.writeImage(0, image);
            recording.writeMemory("k", KR::KRValue(i), static_cast<std::uint64_t>(i) * 1'000'000);
        }
        const std::uint16_t unknown =
            writer.addChannel("/unknown", "xyz", writer.addSchema("s", "t", "u"), {{"a", "b"}});
        writer.write(unknown, 7, 8, 9, KR::KRBytes());
        writer.writeAttachment({1, 2, "name", "text/plain", {1, 2, 3}});
        writer.writeMetadata({"meta", {{"c", "d"}}});
        writer.close();
    }
    expectDone({"video", "recover", path("a.mcap"), path("whole.mcap")});
    EXPECT_EQ(kr({"video", "doctor", path("whole.mcap")}).exitCode, 0);
    const auto whole = nlohmann::json::parse(kr({"video", "info", "--json", path("whole.mcap")}).out);
    EXPECT_EQ(whole["messages"], 25);
    EXPECT_EQ(whole["attachments"], 1);
    KR::KRMcapReader reader(path("whole.mcap"));
    EXPECT_EQ(reader.getChunks().at(0).compression, "lz4");
    EXPECT_EQ(reader.readMetadata(reader.getMetadata().at(0)).values.at("c"), "d");

    Bytes bytes = readAll(path("a.mcap"));
    bytes[bytes.size() / 2] ^= 1u; // in one of the chunks
    bytes.resize(bytes.size() - 3000);
    const std::string bad = write("bad.mcap", bytes);
    const Outcome examined = kr({"video", "doctor", bad});
    EXPECT_EQ(examined.exitCode, 1);
    EXPECT_THAT(examined.out, HasSubstr("never closed"));
    EXPECT_EQ(nlohmann::json::parse(kr({"video", "doctor", "--json", bad}).out).size(),
              static_cast<std::size_t>(std::ranges::count(examined.out, '\n')));
    const Outcome recovered = kr({"video", "recover", bad, path("good.mcap")});
    EXPECT_EQ(recovered.exitCode, 3);
    EXPECT_EQ(kr({"video", "doctor", path("good.mcap")}).exitCode, 0);
    const auto good = nlohmann::json::parse(kr({"video", "info", "--json", path("good.mcap")}).out);
    EXPECT_GT(good["messages"], 0);
    EXPECT_LT(good["messages"], 25);
}

TEST_F(KrVideoMcap, ExtractsTheFrameOfAnOxvFile) {
    const std::string in = write("in.oxv", make(3, 3, 2));
    expectDone({"video", "convert", in, path("a.mcap")});
    expectDone({"video", "extract", in, "--frame", "2", "--stream", "1", path("a.oxi")});
    expectDone({"video", "extract", path("a.mcap"), "--frame", "2", "--stream", "1", path("b.oxi")});
    EXPECT_EQ(readAll(path("b.oxi")), readAll(path("a.oxi")));
    EXPECT_THAT(kr({"video", "extract", path("a.mcap"), "--frame", "3", path("c.oxi")}).err,
                HasSubstr("there is no frame 3 of /camera/0/image; there are 3"));
    EXPECT_THAT(kr({"video", "extract", path("a.mcap"), "--frame", "0", "--stream", "2", path("c.oxi")}).err,
                HasSubstr("there is no stream 2; there are 2 topics with images"));
    EXPECT_EQ(kr({"video", "play", path("a.mcap"), "--from", "3"}).exitCode, 1);
}

TEST_F(KrVideoMcap, OtherConversionsOfMcapFilesAreRefused) {
    const std::string in = write("in.oxv", makeRecording());
    expectDone({"video", "convert", in, path("a.mcap")});
    EXPECT_EQ(kr({"video", "convert", path("a.mcap"), path("a.mkv")}).exitCode, 2);
    EXPECT_EQ(kr({"video", "convert", in, path("b.mcap"), "--compression", "rar"}).exitCode, 2);
}

} // namespace
