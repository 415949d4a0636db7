#include "krinterop/krjson.hpp"

namespace {

using Json = nlohmann::ordered_json;
using KR::KRBinary;
using KR::KRValue;

TEST(KRJson, ExpressesEveryValue) {
    const std::array<unsigned char, 4> bytes = {0, 255, 16, 7};
    const KRValue value = KRValue::array(KRValue(), 7, 0.1f, "text", KRBinary::copyOf(bytes.data(), 4));
    EXPECT_EQ(KR::toJson(value).dump(), R"([null,7,0.1,"text",{"base64":"AP8QBw=="}])");
    EXPECT_EQ(KR::toValue(KR::toJson(value)), value);
}

TEST(KRJson, RefusesWhatAValueCannotHold) {
    for (const char* text : {"2147483648", "-2147483649", "1e39", R"({"a": 1})", R"({"base64": "AAA"})",
                             R"({"base64": "A*AA"})"}) {
        EXPECT_THROW(KR::toValue(Json::parse(text)), std::invalid_argument) << text;
    }
    const std::string deep = std::string(66, '[') + std::string(66, ']');
    EXPECT_THROW(KR::toValue(Json::parse(deep)), std::invalid_argument);
}

TEST(KRJson, ReadsTrueAndFalseAsInts) {
    EXPECT_EQ(KR::toValue(Json::parse("[true, false]")), KRValue::array(1, 0));
}

} // namespace
