#include "system/valuejson.hpp"

#include "tool/command.hpp"

#include <gtest/gtest.h>

#include <string>

namespace KR::tool {
namespace {

TEST(ValueJson, ReadsJsonOfEachKind) {
    EXPECT_EQ(readValue("3"), KRValue(3));
    EXPECT_EQ(readValue("-3"), KRValue(-3));
    EXPECT_EQ(readValue("0.5"), KRValue(0.5F));
    EXPECT_EQ(readValue("1e3"), KRValue(1000.0F));
    EXPECT_EQ(readValue("true"), KRValue(1));
    EXPECT_FALSE(readValue("null").isValid());
    EXPECT_EQ(readValue("\"3\""), KRValue("3"));
    EXPECT_EQ(readValue("[1, [\"a\"]]"), KRValue::array(1, KRValue::array("a")));
}

TEST(ValueJson, ReadsAWordAsAString) {
    EXPECT_EQ(readValue("front"), KRValue("front"));
    EXPECT_EQ(readValue("Door/Open"), KRValue("Door/Open"));
    EXPECT_EQ(readValue(""), KRValue(""));
    EXPECT_EQ(readValue("two words"), KRValue("two words"));
}

TEST(ValueJson, RefusesMalformedJson) {
    for (const char* text : {"[1", "{", "\"a", "3x", "-", "[1,]"}) {
        EXPECT_THROW(readValue(text), UsageError) << text;
    }
}

TEST(ValueJson, RefusesAnIntOfMoreThan32Bits) {
    EXPECT_EQ(readValue("2147483647"), KRValue(2147483647));
    EXPECT_EQ(readValue("-2147483648"), KRValue(-2147483647 - 1));
    EXPECT_THROW(readValue("2147483648"), UsageError);
    EXPECT_THROW(readValue("-2147483649"), UsageError);
    EXPECT_THROW(readValue("18446744073709551615"), UsageError);
    EXPECT_EQ(readValue("2147483648.0"), KRValue(2147483648.0F));
}

TEST(ValueJson, RefusesAFloatOfMoreThan32Bits) {
    EXPECT_EQ(readValue("3.4e38"), KRValue(3.4e38F));
    EXPECT_THROW(readValue("3.5e38"), UsageError);
    EXPECT_THROW(readValue("[-1e39]"), UsageError);
    EXPECT_THROW(readValue("1e400"), UsageError);
}

TEST(ValueJson, RefusesTooDeepArrays) {
    const auto nest = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    EXPECT_TRUE(readValue(nest(64)).isValid());
    EXPECT_THROW(readValue(nest(65)), UsageError);
    EXPECT_THROW(readValue(nest(200'000)), UsageError);
}

TEST(ValueJson, QuotesOnlyTheBeginningOfALongArgument) {
    try {
        readValue("[" + std::string(100'000, 'x'));
        FAIL();
    } catch (const UsageError& error) {
        EXPECT_LT(std::string(error.what()).size(), 200U);
    }
}

TEST(ValueJson, ShowsOnlyTheDigitsOfAFloat) {
    EXPECT_EQ(toJson(KRValue(0.1F)).dump(), "0.1");
    EXPECT_EQ(toJson(KRValue(1.0F)).dump(), "1.0");
    EXPECT_EQ(toJson(KRValue(-2.5e-7F)).dump(), "-2.5e-07");
    EXPECT_EQ(toValue(toJson(KRValue(0.1F))), KRValue(0.1F));
}

TEST(ValueJson, KeepsBytesOfEachLength) {
    const std::string bytes = "\x00\xFF\x10\x80\x7F";
    for (std::size_t size = 0; size <= 5; ++size) {
        const KRBinary binary = KRBinary::copyOf(bytes.data(), size);
        const Json json = toJson(KRValue(binary));
        EXPECT_EQ(toValue(json).GetBinary(), binary) << json;
    }
    EXPECT_EQ(toJson(KRValue(KRBinary::copyOf("Man", 3))), Json::parse(R"({"base64": "TWFu"})"));
    EXPECT_EQ(toJson(KRValue(KRBinary::copyOf("Ma", 2))), Json::parse(R"({"base64": "TWE="})"));
}

TEST(ValueJson, RefusesInvalidBase64) {
    for (const char* text : {"A", "AAA", "A===", "=AAA", "AA=A", "A\nAA",
                             "AA=="
                             "AAAA"}) {
        EXPECT_THROW(toValue(Json{{"base64", text}}), UsageError) << text;
    }
    EXPECT_THROW(toValue(Json{{"base64", 1}}), UsageError);
    EXPECT_THROW(toValue(Json{{"base64", ""}, {"more", 1}}), UsageError);
    EXPECT_THROW(toValue(Json{{"bytes", ""}}), UsageError);
}

} // namespace
} // namespace KR::tool
