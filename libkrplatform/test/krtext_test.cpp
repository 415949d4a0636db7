#include "krplatform/krtext.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace KR {
namespace {

using namespace std::string_literals;

TEST(EscapeText, LeavesPrintableTextUnchanged) {
    EXPECT_EQ(escapeText(""), "");
    EXPECT_EQ(escapeText("camera 0 {\\n} \"~\""), "camera 0 {\\n} \"~\"");
    EXPECT_EQ(escapeText("Größe 5 µm, 日本, 🤖"), "Größe 5 µm, 日本, 🤖");
}

TEST(EscapeText, EscapesControlCharacters) {
    EXPECT_EQ(escapeText("a\nb\r\tc"), "a\\nb\\r\\tc");
    EXPECT_EQ(escapeText("\x1b[31mred\x7f"), "\\x1B[31mred\\x7F");
    EXPECT_EQ(escapeText("a\0b"s), "a\\x00b");
    EXPECT_EQ(escapeText("\xC2\x9B"), "\\xC2\\x9B") << "C1: a terminal takes it for ESC [";
    EXPECT_EQ(escapeText("\xC2\xA0"), "\xC2\xA0");
}

TEST(EscapeText, EscapesCharactersThatReorderTheLine) {
    EXPECT_EQ(escapeText("\u202Eevil"), "\\xE2\\x80\\xAEevil");
    EXPECT_EQ(escapeText("\u2028"), "\\xE2\\x80\\xA8");
    EXPECT_EQ(escapeText("\u2066"), "\\xE2\\x81\\xA6");
}

TEST(EscapeText, EscapesInvalidUtf8) {
    EXPECT_EQ(escapeText("a\xFF"
                         "b\x80"),
              "a\\xFFb\\x80");
    EXPECT_EQ(escapeText("\xC3"), "\\xC3") << "cut short";
    EXPECT_EQ(escapeText("\xE2\x82"), "\\xE2\\x82") << "cut short";
    EXPECT_EQ(escapeText("\xC0\xAF"), "\\xC0\\xAF") << "overlong";
    EXPECT_EQ(escapeText("\xE0\x80\xAF"), "\\xE0\\x80\\xAF") << "overlong";
    EXPECT_EQ(escapeText("\xED\xA0\x80"), "\\xED\\xA0\\x80") << "surrogate";
    EXPECT_EQ(escapeText("\xF4\x90\x80\x80"), "\\xF4\\x90\\x80\\x80") << "beyond Unicode";
    EXPECT_EQ(escapeText("\xF4\x8F\xBF\xBD"), "\xF4\x8F\xBF\xBD");
}

TEST(EscapeText, EscapingTwiceChangesNothing) {
    const std::string once = escapeText("\x1b\n\xFF");
    EXPECT_EQ(escapeText(once), once);
}

TEST(EscapeText, TruncatesALongTextBetweenCharacters) {
    EXPECT_EQ(escapeText("abcdef", 6), "abcdef");
    EXPECT_EQ(escapeText("abcdefg", 6), "abc...");
    EXPECT_EQ(escapeText("abödefg", 6), "ab...") << "no half of a character";
    EXPECT_EQ(escapeText("a\x1b\x1b\x1b", 9), "a\\x1B...") << "no half of an escape";
    EXPECT_EQ(escapeText("abcd", 3), "...");
    EXPECT_EQ(escapeText(std::string(100'000, 'x'), 200).size(), 200U);
}

TEST(DescribeCurrentException, DescribesAnExceptionOfAnyType) {
    const auto describe = [](auto thrown) {
        try {
            throw thrown;
        } catch (...) {
            return describeCurrentException();
        }
    };
    EXPECT_EQ(describe(std::runtime_error("no licence")), "no licence");
    EXPECT_EQ(describe(7), "an exception that is not a std::exception");
}

} // namespace
} // namespace KR
