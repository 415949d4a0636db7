#include "krwebmessages.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace KR::web {
namespace {

std::span<const unsigned char> toBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

TEST(KRWebMessages, DataStartsWithSubscriptionAndTime) {
    const DataHeader header = encodeDataHeader(0x01020304, 0x1112131415161718);
    const DataHeader expected = {1, 4, 3, 2, 1, 0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11};
    EXPECT_EQ(header, expected);
}

TEST(KRWebMessages, ACallIsReadAndAnswered) {
    const std::string bytes("\2\1\0\0\0\2\0\0\0\4\0\0\0json{\"a\":1}", 24);
    const auto call = std::get<CallService>(decodeBinary(toBytes(bytes)));
    EXPECT_EQ(call.service, 1U);
    EXPECT_EQ(call.call, 2U);
    EXPECT_EQ(call.encoding, "json");
    EXPECT_EQ(call.payload, "{\"a\":1}");
    EXPECT_EQ(encodeCallResponse(call, "{}"), std::string("\3\1\0\0\0\2\0\0\0\4\0\0\0json{}", 19));
}

TEST(KRWebMessages, ATruncatedCallIsRefusedAtEveryLength) {
    const std::string bytes("\2\1\0\0\0\2\0\0\0\4\0\0\0json", 17);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_THROW(decodeBinary(toBytes(bytes.substr(0, size))), ProtocolError) << size;
    }
    EXPECT_NO_THROW(decodeBinary(toBytes(bytes)));
}

TEST(KRWebMessages, TextsAreRead) {
    const auto set = std::get<SetParameters>(
        decodeText(R"({"op":"setParameters","id":"7","parameters":[{"name":"a","value":3},{"name":"b"}]})"));
    ASSERT_EQ(set.values.size(), 2U);
    EXPECT_EQ(set.values[0].second, 3);
    EXPECT_TRUE(set.values[1].second.is_null());
    EXPECT_EQ(set.id, "7");
    const auto end = std::get<SubscribeParameters>(
        decodeText(R"({"op":"unsubscribeParameterUpdates","parameterNames":["a"]})"));
    EXPECT_FALSE(end.subscribe);
}

// Copying deeply nested JSON would overflow the stack.
TEST(KRWebMessages, NestingOfJsonIsBounded) {
    const auto nest = [](const std::string& open, const std::string& close, int depth) {
        std::string text = R"({"op":"setParameters","parameters":[{"name":"a\"[[[","value":)";
        for (int i = 0; i < depth; ++i) {
            text += open;
        }
        text += "1";
        for (int i = 0; i < depth; ++i) {
            text += close;
        }
        return text + "}]}";
    };
    const auto kept = std::get<SetParameters>(decodeText(nest("[", "]", 120)));
    EXPECT_TRUE(kept.values.at(0).second.is_array());
    for (const auto& [open, close] : {std::pair("[", "]"), {"{\"a\":", "}"}}) {
        EXPECT_THAT(([&, open = open, close = close] { decodeText(nest(open, close, 150'000)); }),
                    testing::ThrowsMessage<ProtocolError>(testing::HasSubstr("more than 128 deep")));
    }
}

TEST(KRWebMessages, InvalidUtf8DoesNotReachClients) {
    EXPECT_EQ(encodeStatus(StatusLevel::Warning, "\xFF"),
              "{\"op\":\"status\",\"level\":1,\"message\":\"\xEF\xBF\xBD\"}");
}

} // namespace
} // namespace KR::web
