#include "krplatform/krerror.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace KR {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(KRError, NamesModuleMethodDescriptionAndLocationInOneLine) {
    const KRError error("camera", "open", "it is unplugged", {"src/camera.cpp", "open", 12});
    EXPECT_STREQ(error.what(), "camera.open: it is unplugged (src/camera.cpp:12)");
}

TEST(KRError, ReturnsItsParts) {
    const KRError error("camera", "open", "first\nsecond", {"src/camera.cpp", "open", 12});
    EXPECT_EQ(error.getModule(), "camera");
    EXPECT_EQ(error.getMethod(), "open");
    EXPECT_EQ(error.getDescription(), "first\nsecond");
    EXPECT_STREQ(error.getLocation().file, "src/camera.cpp");
    EXPECT_STREQ(error.getLocation().function, "open");
    EXPECT_EQ(error.getLocation().line, 12u);
}

TEST(KRError, ShowsLineBreaksAsText) {
    const KRError error("a\nb", "c\rd", "e\r\nf");
    EXPECT_THAT(error.what(), StartsWith("a\\nb.c\\rd: e\\r\\nf ("));
    EXPECT_THAT(error.what(), Not(HasSubstr("\n")));
}

TEST(KRError, ShowsNoControlCharacters) {
    EXPECT_THAT(KRError("a\x1b[2J", "b", "c\xff").what(), StartsWith("a\\x1B[2J.b: c\\xFF ("));
}

TEST(KRError, KnowsWhereItWasRaised) {
    const KRError error("", "", "");
    const KRSourceLocation here = KRSourceLocation::current();
    EXPECT_EQ(error.getLocation().line + 1, here.line);
    EXPECT_THAT(error.getLocation().file, EndsWith("krerror_test.cpp"));
    EXPECT_STREQ(error.getLocation().function, "TestBody");
}

TEST(KRError, NamesFilesRelativeToTheSourceTree) {
    EXPECT_THAT(KRError("", "", "").getLocation().file, Not(StartsWith("/")));
}

TEST(KRError, IsCaughtAsAStandardException) {
    try {
        throw KRError("camera", "open", "it is unplugged");
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), StartsWith("camera.open: "));
        return;
    }
    FAIL();
}

} // namespace
} // namespace KR
