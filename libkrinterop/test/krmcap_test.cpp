#include "krinterop/krmcapreader.hpp"
#include "krinterop/krmcapwriter.hpp"

#include "mcapfile.hpp"
#include "temporaryfolder.hpp"

#include <numeric>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using KR::KRMcapChannel;
using KR::KRMcapCompression;
using KR::KRMcapMessage;
using KR::KRMcapReader;
using KR::KRMcapSelection;
using KR::KRMcapWriter;
using KR::KRMcapWriterOptions;
using KR::test::Read;
using KR::test::readAllMessages;
using KR::test::TemporaryFolder;
using KR::test::toBytes;

// Text that compresses, long enough for several chunks of 1000 bytes.
std::string makeText(int number) {
    std::string text = "message " + std::to_string(number) + ": ";
    for (int i = 0; i < 20; ++i) {
        text += std::to_string(number * i) + ", ";
    }
    return text;
}

// Writes messages to two topics in turn, with increasing times, and returns what should be read.
std::vector<Read> writeMessages(KRMcapWriter& writer, int count) {
    const std::uint16_t schema = writer.addSchema("test.Text", "jsonschema", R"({"type": "string"})");
    const std::uint16_t first = writer.addChannel("/first", "json", schema, {{"key", "value"}});
    const std::uint16_t second = writer.addChannel("/second", "text", 0);
    std::vector<Read> written;
    for (int i = 0; i < count; ++i) {
        const bool isFirst = i % 2 == 0;
        const std::string text = makeText(i);
        const auto sequence = static_cast<std::uint32_t>(i / 2);
        const auto time = static_cast<std::uint64_t>(1000 + i);
        writer.write(isFirst ? first : second, sequence, time, time, toBytes(text));
        written.push_back({isFirst ? "/first" : "/second", sequence, time, text});
    }
    return written;
}

class KRMcapForms : public testing::TestWithParam<std::tuple<KRMcapCompression, std::size_t>> {};

TEST_P(KRMcapForms, AreReadAsWritten) {
    const TemporaryFolder folder;
    const auto [compression, chunkSize] = GetParam();
    KRMcapWriterOptions options;
    options.compression = compression;
    options.chunkSize = chunkSize;
    options.profile = "profile";
    std::vector<Read> written;
    {
        KRMcapWriter writer(folder.path("a.mcap"), options);
        written = writeMessages(writer, 50);
        writer.writeMetadata({"about", {{"robot", "r2"}, {"", ""}}});
        writer.writeAttachment({7, 8, "notes.txt", "text/plain", {1, 2, 3}});
        writer.close();
        EXPECT_EQ(writer.getFileSize(), std::filesystem::file_size(folder.path("a.mcap")));
    }
    EXPECT_TRUE(KR::isMcapFile(folder.path("a.mcap")));
    KRMcapReader reader(folder.path("a.mcap"));
    EXPECT_EQ(reader.isIndexed(), chunkSize > 0);
    EXPECT_EQ(readAllMessages(reader), written);
    reader.select({KRMcapSelection::Order::Time});
    EXPECT_EQ(readAllMessages(reader), written);
    EXPECT_EQ(reader.getProfile(), "profile");
    EXPECT_EQ(reader.getLibrary(), "KRVision");
    ASSERT_TRUE(reader.getStatistics());
    EXPECT_EQ(reader.getStatistics()->messages, 50u);
    EXPECT_EQ(reader.getStatistics()->startTime, 1000u);
    EXPECT_EQ(reader.getStatistics()->endTime, 1049u);
    EXPECT_EQ(reader.getStatistics()->chunks, reader.getChunks().size());
    EXPECT_EQ(reader.getStatistics()->messagesPerChannel.at(1), 25u);
    ASSERT_EQ(reader.getChannels().size(), 2u);
    EXPECT_EQ(reader.getChannels().at(0), (KRMcapChannel{0, 1, "/first", "json", {{"key", "value"}}}));
    EXPECT_EQ(reader.getSchemas().at(1).text, R"({"type": "string"})");
    ASSERT_EQ(reader.getAttachments().size(), 1u);
    const KR::KRMcapAttachment attachment = reader.readAttachment(reader.getAttachments()[0]);
    EXPECT_EQ(attachment.name, "notes.txt");
    EXPECT_EQ(attachment.mediaType, "text/plain");
    EXPECT_EQ(attachment.data, (std::vector<unsigned char>{1, 2, 3}));
    EXPECT_EQ(attachment.createTime, 8u);
    ASSERT_EQ(reader.getMetadata().size(), 1u);
    EXPECT_EQ(reader.readMetadata(reader.getMetadata()[0]).values.at("robot"), "r2");
    EXPECT_TRUE(reader.getDamage().isNone());
}

TEST_P(KRMcapForms, WithoutAnEndAreReadUpToTheLastCompleteRecord) {
    const TemporaryFolder folder;
    const auto [compression, chunkSize] = GetParam();
    KRMcapWriterOptions options;
    options.compression = compression;
    options.chunkSize = chunkSize;
    KR::test::Bytes whole;
    KRMcapWriter writer(std::make_unique<KR::test::MemoryOutput>(whole), options);
    const std::vector<Read> written = writeMessages(writer, 20);
    writer.close();
    std::size_t mostRead = 0;
    for (std::size_t size = 8; size < whole.size(); ++size) {
        KRMcapReader reader(std::make_unique<KR::test::MemoryInput>(
            KR::test::Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))));
        const std::vector<Read> read = readAllMessages(reader);
        ASSERT_LE(read.size(), written.size());
        ASSERT_TRUE(std::equal(read.begin(), read.end(), written.begin())) << size;
        ASSERT_GE(read.size(), mostRead);
        EXPECT_FALSE(reader.getDamage().isClosed);
        mostRead = read.size();
    }
    EXPECT_EQ(mostRead, written.size());
}

INSTANTIATE_TEST_SUITE_P(All, KRMcapForms,
                         testing::Combine(testing::Values(KRMcapCompression::None, KRMcapCompression::Lz4,
                                                          KRMcapCompression::Zstd),
                                          testing::Values(std::size_t{0}, std::size_t{1000},
                                                          std::size_t{1} << 20)));

TEST(KRMcap, LargeMessagesInPiecesAreReadAsOne) {
    const TemporaryFolder folder;
    std::vector<unsigned char> large(300'000);
    std::iota(large.begin(), large.end(), static_cast<unsigned char>(0));
    for (const KRMcapCompression compression : {KRMcapCompression::None, KRMcapCompression::Lz4}) {
        KRMcapWriterOptions options;
        options.compression = compression;
        KRMcapWriter writer(folder.path("a.mcap"), options);
        const std::uint16_t channel = writer.addChannel("/large", "raw", 0);
        for (std::uint32_t i = 0; i < 5; ++i) {
            const std::string small = "small " + std::to_string(i);
            writer.write(channel, 2 * i, i, i, toBytes(small));
            const std::array<KR::KRBytes, 3> pieces = {toBytes(small), {}, KR::KRBytes(large)};
            writer.write(channel, 2 * i + 1, i, i, pieces);
        }
        writer.close();
        KRMcapReader reader(folder.path("a.mcap"));
        const std::vector<Read> read = readAllMessages(reader);
        ASSERT_EQ(read.size(), 10u);
        EXPECT_EQ(read[8].data, "small 4");
        EXPECT_EQ(read[9].data, "small 4" + std::string(large.begin(), large.end()));
        EXPECT_TRUE(reader.getDamage().isNone());
    }
}

TEST(KRMcap, AnEmptyFileIsClosedAndRead) {
    const TemporaryFolder folder;
    KRMcapWriter(folder.path("a.mcap")).close();
    KRMcapReader reader(folder.path("a.mcap"));
    EXPECT_TRUE(reader.isIndexed());
    EXPECT_TRUE(readAllMessages(reader).empty());
    EXPECT_TRUE(reader.getDamage().isNone());
}

TEST(KRMcap, BeginsAsDocumented) {
    KR::test::Bytes bytes;
    KRMcapWriter(std::make_unique<KR::test::MemoryOutput>(bytes)).close();
    KR::test::Bytes expected = {
        0x89, 'M',  'C', 'A', 'P', '0', '\r', '\n',    // magic
        0x01, 16,   0,   0,   0,   0,   0,    0,    0, // header
        0,    0,    0,   0,   8,   0,   0,    0,    'K', 'R', 'V', 'i', 's', 'i', 'o',
        'n',  0x0f, 4,   0,   0,   0,   0,    0,    0,   0,   0,   0,   0,   0, // end of data
        0x0b, 46,   0,   0,   0,   0,   0,    0,    0};                         // statistics
    expected.resize(expected.size() + 19);
    ASSERT_EQ(expected.size(), 74u);
    ASSERT_GE(bytes.size(), 74u);
    bytes.resize(74);
    EXPECT_EQ(bytes, expected);
}

TEST(KRMcap, AKilledProcessLosesOnlyTheOpenChunk) {
    const TemporaryFolder folder;
    const pid_t writing = ::fork();
    ASSERT_GE(writing, 0);
    if (writing == 0) {
        KRMcapWriterOptions options;
        options.compression = KRMcapCompression::Lz4;
        options.chunkSize = 1000;
        KRMcapWriter writer(folder.path("a.mcap"), options);
        writeMessages(writer, 1000);
        ::kill(::getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(writing, &status, 0), writing);
    ASSERT_TRUE(WIFSIGNALED(status));
    KRMcapReader reader(folder.path("a.mcap"));
    const std::vector<Read> read = readAllMessages(reader);
    EXPECT_GT(read.size(), 980u);
    EXPECT_LE(read.size(), 1000u);
    EXPECT_FALSE(reader.isIndexed());
    EXPECT_FALSE(reader.getDamage().isClosed);
    EXPECT_EQ(reader.getDamage().cutBytes, 0u);
}

TEST(KRMcap, SelectsByTimeAndTopic) {
    const TemporaryFolder folder;
    KRMcapWriterOptions options;
    options.chunkSize = 500;
    KRMcapWriter writer(folder.path("a.mcap"), options);
    const std::vector<Read> written = writeMessages(writer, 100);
    writer.close();
    KRMcapReader reader(folder.path("a.mcap"));
    KRMcapSelection selection;
    selection.startTime = 1010;
    selection.endTime = 1013;
    for (const auto order : {KRMcapSelection::Order::File, KRMcapSelection::Order::Time}) {
        selection.order = order;
        selection.isWanted = nullptr;
        reader.select(selection);
        EXPECT_EQ(readAllMessages(reader), (std::vector<Read>(written.begin() + 10, written.begin() + 14)));
        selection.isWanted = [](const KRMcapChannel& channel) { return channel.topic == "/second"; };
        reader.select(selection);
        EXPECT_EQ(readAllMessages(reader), (std::vector<Read>{written[11], written[13]}));
    }
}

TEST(KRMcap, ReadsInTimeOrderAcrossOverlappingChunks) {
    std::mt19937 random(3);
    for (const bool isClosed : {true, false}) {
        KR::test::Bytes bytes;
        KRMcapWriterOptions options;
        options.chunkSize = 200;
        std::vector<std::uint64_t> times;
        {
            KRMcapWriter writer(std::make_unique<KR::test::MemoryOutput>(bytes), options);
            const std::uint16_t channel = writer.addChannel("/a", "text", 0);
            for (std::uint32_t i = 0; i < 300; ++i) {
                times.push_back(i + random() % 20); // equal ones among them
                writer.write(channel, i, times.back(), 0, toBytes("a short message"));
            }
            writer.flush();
            if (!isClosed) {
                bytes.resize(writer.getFileSize());
            }
            writer.close();
            if (!isClosed) {
                bytes.resize(bytes.size() - 8);
            }
        }
        KRMcapReader reader(std::make_unique<KR::test::MemoryInput>(bytes));
        EXPECT_EQ(reader.isIndexed(), isClosed);
        reader.select({KRMcapSelection::Order::Time});
        std::vector<std::pair<std::uint64_t, std::uint32_t>> expected, read;
        for (std::uint32_t i = 0; i < times.size(); ++i) {
            expected.emplace_back(times[i], i);
        }
        std::ranges::sort(expected);
        for (KRMcapMessage message; reader.next(message);) {
            EXPECT_EQ(std::string(message.data.begin(), message.data.end()), "a short message");
            read.emplace_back(message.logTime, message.sequence);
        }
        EXPECT_EQ(read, expected);
    }
}

TEST(KRMcap, BoundsTheChunksOpenAtOnce) {
    KR::test::Bytes bytes;
    KRMcapWriterOptions options;
    options.chunkSize = 200;
    KRMcapWriter writer(std::make_unique<KR::test::MemoryOutput>(bytes), options);
    const std::uint16_t channel = writer.addChannel("/a", "text", 0);
    for (std::uint32_t i = 0; i < 300; ++i) {
        writer.write(channel, i, i % 2 == 0 ? 0 : 1000, 0, toBytes("a short message"));
    }
    writer.close();
    KR::KRMcapLimits limits;
    limits.maxOpenChunks = 2000;
    KRMcapReader reader(std::make_unique<KR::test::MemoryInput>(bytes), limits);
    EXPECT_EQ(readAllMessages(reader).size(), 300u);
    reader.select({KRMcapSelection::Order::Time});
    EXPECT_THROW(readAllMessages(reader), KR::KRMcapError);
}

TEST(KRMcap, AFullDiskStopsTheWriterAndLeavesAReadableFile) {
    KR::test::Bytes whole;
    KRMcapWriterOptions options;
    options.chunkSize = 1000;
    std::vector<Read> written;
    {
        KRMcapWriter writer(std::make_unique<KR::test::MemoryOutput>(whole), options);
        written = writeMessages(writer, 30);
        writer.close();
    }
    for (std::size_t room = 8; room < whole.size(); room += 13) {
        KR::test::Bytes bytes;
        try {
            KRMcapWriter writer(std::make_unique<KR::test::MemoryOutput>(bytes, room), options);
            try {
                writeMessages(writer, 30);
                writer.close();
                ADD_FAILURE() << "written into " << room << " bytes";
            } catch (const KR::KRMcapError& error) {
                EXPECT_STREQ(error.what(), "disk.mcap: cannot be written: No space left on device");
                EXPECT_THROW(writer.write(0, 0, 0, 0, KR::KRBytes()), KR::KRMcapError);
                EXPECT_THROW(writer.close(), KR::KRMcapError);
            }
        } catch (const KR::KRMcapError&) { // no room for the header
            continue;
        }
        EXPECT_EQ(bytes.size(), room);
        KRMcapReader reader(std::make_unique<KR::test::MemoryInput>(bytes));
        const std::vector<Read> read = readAllMessages(reader);
        ASSERT_TRUE(std::equal(read.begin(), read.end(), written.begin()));
    }
}

TEST(KRMcap, AFullDeviceIsReported) {
    KRMcapWriterOptions options;
    options.chunkSize = 0;
    try {
        KRMcapWriter writer("/dev/full", options);
        FAIL();
    } catch (const KR::KRMcapError& error) {
        EXPECT_STREQ(error.what(), "/dev/full: cannot be written: No space left on device");
    }
}

TEST(KRMcap, AFileThatCannotBeOpenedIsReported) {
    EXPECT_THROW(KRMcapWriter("/does/not/exist.mcap"), KR::KRMcapError);
    EXPECT_THROW(KRMcapReader("/does/not/exist.mcap"), KR::KRMcapError);
    EXPECT_THROW(KRMcapReader("/dev/zero"), KR::KRMcapError);
    EXPECT_FALSE(KR::isMcapFile("/does/not/exist.mcap"));
}

} // namespace
