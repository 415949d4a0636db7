#include "tool/json.hpp"

#include <gtest/gtest.h>

#include <string>

namespace KR::tool {
namespace {

TEST(KrJson, HoldsNoControlCharacters) {
    EXPECT_EQ(formatJson("a\x1b[2J\x7f"), "\"a\\u001b[2J\\u007f\"");
    EXPECT_EQ(formatJson("\xc2\x9b"
                         "2J"),
              "\"\\u009b2J\"")
        << "the one-byte form of ESC [";
    EXPECT_EQ(formatJson("\xc3\xa9\xc2\xa0"), "\"\xc3\xa9\xc2\xa0\"");
    EXPECT_EQ(Json::parse(formatJson("\xc2\x9b\x7f")), Json("\xc2\x9b\x7f"));
}

} // namespace
} // namespace KR::tool
