#include "krinterop/krcdr.hpp"

namespace {

using KR::KRCdrError;
using KR::KRCdrReader;
using KR::KRCdrWriter;
using Bytes = std::vector<unsigned char>;

TEST(KRCdr, AlignsNumbersToTheirSizeFromTheEndOfTheEncoding) {
    KRCdrWriter writer;
    writer.write(std::uint8_t{0x11});
    writer.write(std::uint16_t{0x2233});
    writer.write(std::uint8_t{0x44});
    writer.write(std::uint32_t{0x55667788});
    writer.write(std::uint64_t{1});
    EXPECT_EQ(writer.getBytes(), (Bytes{0,    1,    0,    0,                      // little-endian CDR
                                        0x11, 0,    0x33, 0x22, 0x44, 0, 0, 0,    // offsets 0, 2, 4
                                        0x88, 0x77, 0x66, 0x55, 0,    0, 0, 0,    // 8
                                        1,    0,    0,    0,    0,    0, 0, 0})); // 16
}

TEST(KRCdr, WritesStringsWithTheirFinalZero) {
    KRCdrWriter writer;
    writer.write("ab");
    writer.write(std::uint32_t{7});
    EXPECT_EQ(writer.getBytes(), (Bytes{0, 1, 0, 0, 3, 0, 0, 0, 'a', 'b', 0, 0, 7, 0, 0, 0}));
}

TEST(KRCdr, ReadsWhatItWrote) {
    KRCdrWriter writer;
    writer.write(true);
    writer.write(-1.5);
    writer.write("frame");
    writer.write(0.25f);
    writer.write(std::int64_t{-2});
    writer.writeLength(3);
    writer.writeBytes(Bytes{1, 2, 3});
    KRCdrReader reader(writer.getBytes());
    EXPECT_TRUE(reader.readBool());
    EXPECT_EQ(reader.read<double>(), -1.5);
    EXPECT_EQ(reader.readString(), "frame");
    EXPECT_EQ(reader.read<float>(), 0.25f);
    EXPECT_EQ(reader.read<std::int64_t>(), -2);
    const KR::KRBytes bytes = reader.readBytes(reader.readLength(1));
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), (Bytes{1, 2, 3}));
    EXPECT_EQ(reader.countBytesLeft(), 0u);
}

TEST(KRCdr, RefusesATruncatedMessage) {
    KRCdrWriter writer;
    writer.write(std::uint8_t{1});
    writer.write(2.0);
    writer.write("text");
    const Bytes whole = writer.getBytes();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_THROW(
            {
                KRCdrReader reader(cut);
                reader.read<std::uint8_t>();
                reader.read<double>();
                reader.readString();
            },
            KRCdrError)
            << size;
    }
}

TEST(KRCdr, RefusesLengthsBeyondTheMessageBeforeAllocating) {
    KRCdrWriter writer;
    writer.write(std::uint32_t{0xFFFFFFFF});
    EXPECT_THROW(KRCdrReader(writer.getBytes()).readString(), KRCdrError);
    EXPECT_THROW(KRCdrReader(writer.getBytes()).readLength(8), KRCdrError);
}

TEST(KRCdr, RefusesAStringWithoutItsFinalZero) {
    const Bytes message = {0, 1, 0, 0, 2, 0, 0, 0, 'a', 'b'};
    EXPECT_THROW(KRCdrReader(message).readString(), KRCdrError);
}

TEST(KRCdr, NamesAnUnsupportedEncoding) {
    const Bytes bigEndian = {0, 0, 0, 0, 0, 0, 0, 1};
    try {
        const KRCdrReader reader(bigEndian);
        FAIL();
    } catch (const KRCdrError& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("0x0000"));
    }
}

} // namespace
