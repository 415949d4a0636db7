#include "krlocalframe.hpp"

#include "krlocal/krlocalmessage.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace KR {
namespace {

KRLocalFrame makeFrame() {
    KRLocalFrame frame;
    frame.kind = KRLocalFrame::Reply;
    frame.code = 7;
    frame.number = 1234567890123;
    frame.bodySize = 5;
    frame.memories = {{3, 8 << 20}, {4, 1 << 20}};
    frame.forgotten = {1, 2};
    frame.binaries = {{3, 9, 1, 4096, 614400}, {0, 0, 0, 0, 100}};
    return frame;
}

std::span<const unsigned char> toBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

TEST(KRLocalFrame, ComesBackAsItWent) {
    const KRLocalFrame frame = makeFrame();
    const std::string bytes = frame.compose() + "body!";
    std::size_t size = 0;
    const KRLocalFrame parsed = KRLocalFrame::parse(toBytes(bytes), size);
    EXPECT_EQ(size, bytes.size() - 5);
    EXPECT_EQ(parsed.kind, frame.kind);
    EXPECT_EQ(parsed.code, frame.code);
    EXPECT_EQ(parsed.number, frame.number);
    EXPECT_EQ(parsed.bodySize, frame.bodySize);
    EXPECT_EQ(parsed.forgotten, frame.forgotten);
    ASSERT_EQ(parsed.memories.size(), 2u);
    EXPECT_EQ(parsed.memories[1].id, 4u);
    EXPECT_EQ(parsed.memories[1].size, 1u << 20);
    ASSERT_EQ(parsed.binaries.size(), 2u);
    EXPECT_EQ(parsed.binaries[0].memory, 3u);
    EXPECT_EQ(parsed.binaries[0].ticket, 9u);
    EXPECT_EQ(parsed.binaries[0].generation, 1u);
    EXPECT_EQ(parsed.binaries[0].offset, 4096u);
    EXPECT_EQ(parsed.binaries[0].size, 614400u);
    EXPECT_EQ(parsed.getRest(), 105u);
    EXPECT_EQ(parsed.compose(), frame.compose());
}

TEST(KRLocalFrame, EveryBeginningOfAHeadIsRefused) {
    const std::string bytes = makeFrame().compose();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        std::size_t size = 0;
        EXPECT_THROW(KRLocalFrame::parse(toBytes(bytes.substr(0, length)), size), KRLocalMalformed) << length;
    }
}

TEST(KRLocalFrame, AnyChangeIsRefusedOrParsed) {
    std::mt19937 random(1);
    const std::string bytes = makeFrame().compose();
    for (int round = 0; round < 20000; ++round) {
        std::string changed = bytes;
        for (int i = 0; i < 3; ++i) {
            changed[random() % changed.size()] = static_cast<char>(random());
        }
        std::size_t size = 0;
        try {
            const KRLocalFrame frame = KRLocalFrame::parse(toBytes(changed), size);
            EXPECT_LE(frame.getRest(), KRLocalMessage::kMaxBytes);
            EXPECT_LE(size, changed.size());
        } catch (const KRLocalMalformed&) {
        }
    }
}

TEST(KRLocalFrame, ARestBeyondTheBoundsIsRefused) {
    KRLocalFrame frame;
    std::size_t size = 0;
    frame.bodySize = KRLocalMessage::kMaxBytes + 1;
    EXPECT_THROW(KRLocalFrame::parse(toBytes(frame.compose()), size), KRLocalMalformed);
    frame.bodySize = 0;
    for (int i = 0; i < 4; ++i) { // each within the bounds
        frame.binaries.push_back({0, 0, 0, 0, KRLocalMessage::kMaxBytes / 3});
    }
    EXPECT_THROW(KRLocalFrame::parse(toBytes(frame.compose()), size), KRLocalMalformed);
    frame.binaries = {{0, 0, 0, 0, ~std::uint64_t{0}}};
    EXPECT_THROW(KRLocalFrame::parse(toBytes(frame.compose()), size), KRLocalMalformed);
}

TEST(KRLocalFrame, APacketThatIsLongerThanItsMessageIsRefused) {
    KRLocalFrame frame;
    frame.bodySize = 3;
    std::size_t size = 0;
    EXPECT_NO_THROW(KRLocalFrame::parse(toBytes(frame.compose() + "abc"), size));
    EXPECT_THROW(KRLocalFrame::parse(toBytes(frame.compose() + "abcd"), size), KRLocalMalformed);
}

} // namespace
} // namespace KR
