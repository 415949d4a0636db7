#include "krcrc32.hpp"

namespace {

using KR::hasCrc32Path;
using KR::KRCrc32Path;
using KR::updateCrc32;

std::vector<KRCrc32Path> getPaths() {
    std::vector<KRCrc32Path> paths;
    for (const KRCrc32Path path : {KRCrc32Path::Table, KRCrc32Path::Clmul, KRCrc32Path::WideClmul}) {
        if (hasCrc32Path(path)) {
            paths.push_back(path);
        }
    }
    return paths;
}

TEST(KRCrc32, IsThatOfZipAndEthernet) {
    EXPECT_EQ(updateCrc32(0, "123456789", 9), 0xCBF43926u); // the check value of CRC-32/ISO-HDLC
    EXPECT_EQ(updateCrc32(0, "", 0), 0u);
}

TEST(KRCrc32, IsTheSameOnEveryPathForEveryLength) {
    std::mt19937 random(1);
    std::vector<unsigned char> bytes(5000);
    std::ranges::generate(bytes, [&] { return static_cast<unsigned char>(random()); });
    for (std::size_t size = 0; size < 2000; ++size) {
        const std::size_t start = size % 17;
        const std::uint32_t expected = updateCrc32(KRCrc32Path::Table, 0x1234, bytes.data() + start, size);
        for (const KRCrc32Path path : getPaths()) {
            ASSERT_EQ(updateCrc32(path, 0x1234, bytes.data() + start, size), expected)
                << size << " bytes on path " << static_cast<int>(path);
        }
    }
}

TEST(KRCrc32, OfPiecesIsThatOfTheWhole) {
    std::vector<unsigned char> bytes(3000);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(3));
    for (const KRCrc32Path path : getPaths()) {
        const std::uint32_t first = updateCrc32(path, 0, bytes.data(), 1234);
        EXPECT_EQ(updateCrc32(path, first, bytes.data() + 1234, 3000 - 1234),
                  updateCrc32(path, 0, bytes.data(), 3000));
    }
}

} // namespace
