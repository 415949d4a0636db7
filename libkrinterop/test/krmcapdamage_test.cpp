// Damaged and malformed files.

#include "krinterop/krmcapreader.hpp"
#include "krinterop/krmcapwriter.hpp"

#include "krmcaprecord.hpp"
#include "mcapfile.hpp"

#include <zstd.h>

namespace {

using KR::KRMcapCompression;
using KR::KRMcapMessage;
using KR::KRMcapReader;
using KR::KRMcapWriter;
using KR::KRMcapWriterOptions;
using KR::mcap::Opcode;
using KR::mcap::RecordWriter;
using KR::test::Bytes;
using KR::test::MemoryInput;
using KR::test::Read;
using KR::test::readAllMessages;
using KR::test::toBytes;

std::unique_ptr<KRMcapReader> open(const Bytes& bytes, KR::KRMcapLimits limits = {}) {
    return std::make_unique<KRMcapReader>(std::make_unique<MemoryInput>(bytes), limits);
}

Bytes writeFile(KRMcapCompression compression, int count = 20) {
    Bytes bytes;
    KRMcapWriterOptions options;
    options.compression = compression;
    options.chunkSize = 300;
    KRMcapWriter writer(std::make_unique<KR::test::MemoryOutput>(bytes), options);
    const std::uint16_t schema = writer.addSchema("s", "jsonschema", "{}");
    const std::uint16_t channel = writer.addChannel("/a", "json", schema);
    for (int i = 0; i < count; ++i) {
        const auto number = static_cast<std::uint32_t>(i);
        writer.write(channel, number, number, number, toBytes(std::string(100, static_cast<char>('a' + i))));
    }
    writer.writeAttachment({1, 2, "name", "type", Bytes(50, 7)});
    writer.close();
    return bytes;
}

/// A file made record by record.
class HandMade {
public:
    HandMade() {
        bytes_.bytes(KR::mcap::kMagic);
        begin(Opcode::Header).string("");
        bytes_.string("hand");
        end();
    }
    RecordWriter& begin(Opcode opcode) {
        begun_ = bytes_.begin(opcode);
        return bytes_;
    }
    void end() { bytes_.end(begun_); }
    void addChannel(std::uint16_t id, const std::string& topic) {
        writeChannel(bytes_, {id, 0, topic, "text", {}});
    }
    static void addMessage(RecordWriter& to, std::uint16_t channel, const std::string& text) {
        const std::size_t begun = to.begin(Opcode::Message);
        to.number(channel);
        to.number(std::uint32_t{1});
        to.number(std::uint64_t{2});
        to.number(std::uint64_t{3});
        to.bytes(toBytes(text));
        to.end(begun);
    }
    void addMessage(std::uint16_t channel, const std::string& text) { addMessage(bytes_, channel, text); }
    void addChunk(const std::string& compression, std::uint64_t size, KR::KRBytes content) {
        begin(Opcode::Chunk).number(std::uint64_t{0});
        bytes_.number(std::uint64_t{9});
        bytes_.number(size);
        bytes_.number(std::uint32_t{0});
        bytes_.string(compression);
        bytes_.number(std::uint64_t{content.size()});
        bytes_.bytes(content);
        end();
    }
    Bytes getBytes() const { return {bytes_.get().begin(), bytes_.get().end()}; }

private:
    RecordWriter bytes_;
    std::size_t begun_ = 0;
};

TEST(KRMcapDamage, FilesOfAnotherKindAreRefused) {
    EXPECT_THROW(open({}), KR::KRMcapError);
    EXPECT_THROW(open(Bytes(1000, 'x')), KR::KRMcapError);
}

TEST(KRMcapDamage, AWrongByteNeverYieldsAWrongMessage) {
    for (const auto compression :
         {KRMcapCompression::None, KRMcapCompression::Lz4, KRMcapCompression::Zstd}) {
        const Bytes whole = writeFile(compression, 8); // the time grows with its square
        const std::vector<Read> written = [&] {
            const auto reader = open(whole);
            return readAllMessages(*reader);
        }();
        ASSERT_EQ(written.size(), 8u);
        for (std::size_t i = 8; i < whole.size(); ++i) {
            Bytes bytes = whole;
            bytes[i] ^= 0x41;
            const auto reader = open(bytes);
            for (const Read& read : readAllMessages(*reader)) {
                ASSERT_TRUE(std::ranges::find(written, read) != written.end()) << "byte " << i;
            }
            reader->select({KR::KRMcapSelection::Order::Time});
            readAllMessages(*reader);
            for (const auto& index : reader->getAttachments()) {
                try {
                    reader->readAttachment(index);
                } catch (const KR::KRMcapError&) { // NOLINT(bugprone-empty-catch): expected
                }
            }
        }
    }
}

TEST(KRMcapDamage, AChunkWithAWrongCrcIsSkippedAndCountedOnce) {
    Bytes bytes = writeFile(KRMcapCompression::None);
    const auto place = std::search_n(bytes.begin(), bytes.end(), 100, static_cast<unsigned char>('e'));
    ASSERT_NE(place, bytes.end());
    *place = 'x';
    const auto reader = open(bytes);
    const std::size_t read = readAllMessages(*reader).size();
    EXPECT_GT(read, 10u);
    EXPECT_LT(read, 20u);
    EXPECT_EQ(reader->getDamage().wrongCrcs, 1u);
    ASSERT_FALSE(reader->getDamage().texts.empty());
    EXPECT_THAT(reader->getDamage().texts.front(), testing::HasSubstr("wrong CRC"));
    reader->select({KR::KRMcapSelection::Order::Time});
    EXPECT_EQ(readAllMessages(*reader).size(), read);
    EXPECT_EQ(reader->getDamage().wrongCrcs, 1u);
}

TEST(KRMcapDamage, AnAttachmentWithAWrongCrcIsRefused) {
    Bytes bytes = writeFile(KRMcapCompression::None);
    const auto place = std::search_n(bytes.begin(), bytes.end(), 50, static_cast<unsigned char>(7));
    ASSERT_NE(place, bytes.end());
    *place = 8;
    const auto reader = open(bytes);
    ASSERT_EQ(reader->getAttachments().size(), 1u);
    EXPECT_THROW(reader->readAttachment(reader->getAttachments()[0]), KR::KRMcapError);
}

TEST(KRMcapDamage, ADamagedSummaryIsReplacedByASearch) {
    Bytes bytes = writeFile(KRMcapCompression::Lz4);
    bytes[bytes.size() - 60] ^= 1;
    const auto reader = open(bytes);
    EXPECT_FALSE(reader->isIndexed());
    EXPECT_EQ(readAllMessages(*reader).size(), 20u);
    EXPECT_TRUE(reader->getDamage().isClosed);
    ASSERT_FALSE(reader->getDamage().texts.empty());
    EXPECT_THAT(reader->getDamage().texts.front(), testing::HasSubstr("summary"));
}

TEST(KRMcapDamage, UnknownCompressionsAreSkippedAndNamed) {
    HandMade file;
    file.addChannel(0, "/a");
    file.addChunk("brotli", 10, Bytes(5));
    file.addMessage(0, "behind");
    const auto reader = open(file.getBytes());
    EXPECT_EQ(readAllMessages(*reader), (std::vector<Read>{{"/a", 1, 2, "behind"}}));
    EXPECT_EQ(reader->getDamage().unreadableChunks, 1u);
    EXPECT_THAT(reader->getDamage().texts, testing::Contains(testing::HasSubstr("\"brotli\"")));
}

TEST(KRMcapDamage, UnknownRecordsAreSkippedEverywhere) {
    RecordWriter content;
    content.end(content.begin(static_cast<Opcode>(0x77)));
    HandMade::addMessage(content, 0, "inside");
    HandMade file;
    file.addChannel(0, "/a");
    file.begin(static_cast<Opcode>(0x80)).string("of a later version");
    file.end();
    file.addChunk("", content.size(), content.get());
    const auto reader = open(file.getBytes());
    EXPECT_EQ(readAllMessages(*reader), (std::vector<Read>{{"/a", 1, 2, "inside"}}));
    EXPECT_EQ(reader->getDamage().badRecords, 0u);
}

TEST(KRMcapDamage, CompressionBombsAreRefusedBeforeDecompression) {
    const Bytes zeros(std::size_t{64} << 20);
    Bytes bomb(ZSTD_compressBound(zeros.size()));
    bomb.resize(ZSTD_compress(bomb.data(), bomb.size(), zeros.data(), zeros.size(), 1));
    KR::KRMcapLimits limits;
    limits.maxRecordSize = std::uint64_t{1} << 20;
    for (const std::uint64_t announced : {std::uint64_t{64} << 20, std::uint64_t{1000}, ~std::uint64_t{0}}) {
        HandMade file;
        file.addChannel(0, "/a");
        file.addChunk("zstd", announced, bomb);
        file.addMessage(0, "behind");
        const auto reader = open(file.getBytes(), limits);
        EXPECT_EQ(readAllMessages(*reader).size(), 1u);
        EXPECT_EQ(reader->getDamage().unreadableChunks, 1u);
    }
}

TEST(KRMcapDamage, MessagesOfUnknownChannelsAreCounted) {
    HandMade file;
    file.addMessage(3, "lost");
    file.addChannel(3, "/late");
    file.addMessage(3, "found");
    const auto reader = open(file.getBytes());
    EXPECT_EQ(readAllMessages(*reader), (std::vector<Read>{{"/late", 1, 2, "found"}}));
    EXPECT_EQ(reader->getDamage().unknownChannels, 1u);
}

TEST(KRMcapDamage, ASecondDefinitionThatDiffersIsNotUsed) {
    HandMade file;
    file.addChannel(1, "/first");
    file.addChannel(1, "/second");
    file.addMessage(1, "text");
    const auto reader = open(file.getBytes());
    EXPECT_EQ(readAllMessages(*reader).at(0).topic, "/first");
    EXPECT_EQ(reader->getDamage().badRecords, 1u);
}

TEST(KRMcapDamage, MessagesWithoutTheirSchemaAreRead) {
    HandMade file;
    RecordWriter& to = file.begin(Opcode::Channel);
    to.number(std::uint16_t{1});
    to.number(std::uint16_t{44});
    to.string("/a");
    to.string("cbor");
    to.map({});
    file.end();
    file.addMessage(1, "text");
    const auto reader = open(file.getBytes());
    KRMcapMessage message;
    ASSERT_TRUE(reader->next(message));
    EXPECT_EQ(message.schema, nullptr);
    EXPECT_EQ(message.channel->messageEncoding, "cbor");
}

TEST(KRMcapDamage, RecordsBeyondTheLimitAreSkippedAndCounted) {
    HandMade file;
    file.addChannel(0, "/a");
    file.addMessage(0, std::string(5000, 'x'));
    file.addMessage(0, "small");
    KR::KRMcapLimits limits;
    limits.maxRecordSize = 1000;
    const auto reader = open(file.getBytes(), limits);
    EXPECT_EQ(readAllMessages(*reader).at(0).data, "small");
    EXPECT_EQ(reader->getDamage().badRecords, 1u);
}

TEST(KRMcapDamage, ZerosAfterTheDataAreCutBytes) {
    HandMade file;
    file.addChannel(0, "/a");
    file.addMessage(0, "last");
    Bytes bytes = file.getBytes();
    bytes.resize(bytes.size() + 4096); // as a file system leaves them after a power failure
    const auto reader = open(bytes);
    EXPECT_EQ(readAllMessages(*reader).size(), 1u);
    EXPECT_EQ(reader->getDamage().cutBytes, 4096u);
    EXPECT_FALSE(reader->getDamage().isClosed);
}

} // namespace
