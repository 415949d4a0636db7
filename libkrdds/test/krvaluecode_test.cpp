#include "krmessage.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krerror.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace KR::test {

namespace {

using testing::HasSubstr;
using Bytes = std::vector<unsigned char>;

KRReceivedBytes asReceived(const Bytes& bytes) {
    KRReceivedBytes received = KRReceivedBytes::allocate(bytes.size());
    std::copy(bytes.begin(), bytes.end(), received.bytes.get());
    return received;
}

Bytes toBytes(const KRComposedBytes& composed) {
    Bytes bytes;
    for (const auto& piece : composed.getPieces()) {
        bytes.insert(bytes.end(), piece.data, piece.data + piece.size);
    }
    return bytes;
}

/// Why the bytes are no value.
std::string refusalOf(const Bytes& bytes) {
    try {
        decodeValue(asReceived(bytes), 0, bytes.size());
    } catch (const KRMalformed& error) {
        return error.what();
    }
    return "understood";
}

TEST(KRValueCode, WhatIsNoValueOfOursIsRefused) {
    EXPECT_THAT(refusalOf({}), HasSubstr("it is truncated"));
    EXPECT_THAT(refusalOf({0xc1}), HasSubstr("not msgpack"));
    EXPECT_THAT(refusalOf({0xc3}), HasSubstr("a boolean"));
    EXPECT_THAT(refusalOf({0x80}), HasSubstr("a map"));
    EXPECT_THAT(refusalOf({0xcb, 0, 0, 0, 0, 0, 0, 0, 0}), HasSubstr("a float of 64 bits"));
    EXPECT_THAT(refusalOf({0xce, 0x80, 0, 0, 0}), HasSubstr("more than 32 bits"));
    EXPECT_THAT(refusalOf({0xd3, 0x80, 0, 0, 0, 0, 0, 0, 0}), HasSubstr("more than 32 bits"));
    EXPECT_THAT(refusalOf({0xd4, 1, 1}), HasSubstr("an extension"));
    EXPECT_THAT(refusalOf({1, 2}), HasSubstr("bytes after it"));
    EXPECT_THAT(refusalOf({0x92, 1}), HasSubstr("it is truncated"));
}

TEST(KRValueCode, LengthsThatTheBytesDoNotHaveAreRefused) {
    EXPECT_THAT(refusalOf({0xc6, 0xff, 0xff, 0xff, 0xff, 1, 2, 3}), HasSubstr("it is truncated"));
    EXPECT_THAT(refusalOf({0xdb, 0xff, 0xff, 0xff, 0xff, 'a'}), HasSubstr("it is truncated"));
    EXPECT_THAT(refusalOf({0xdc, 0xff, 0xff, 1}), HasSubstr("it is truncated"));
    EXPECT_THAT(refusalOf({0xdd, 0xff, 0xff, 0xff, 0xff, 1}), HasSubstr("too many values"));
}

TEST(KRValueCode, ArraysInArraysAreBounded) {
    Bytes bytes(KRValueBounds::kDepth, 0x91);
    bytes.push_back(1);
    EXPECT_EQ(refusalOf(bytes), "understood");
    bytes.insert(bytes.begin(), 0x91);
    EXPECT_THAT(refusalOf(bytes), HasSubstr("nested too deep"));
    EXPECT_THAT(refusalOf(Bytes(1000000, 0x91)), HasSubstr("nested too deep"));
}

TEST(KRValueCode, TheNumberOfValuesIsBoundedThoughEachArrayIsSmall) {
    Bytes bytes{0xdd, 0, 2, 0, 0}; // 131,072 arrays
    for (int i = 0; i < 131072; ++i) {
        bytes.insert(bytes.end(), {0x99, 1, 1, 1, 1, 1, 1, 1, 1, 1}); // of 9
    }
    EXPECT_THAT(refusalOf(bytes), HasSubstr("too many values"));
}

TEST(KRValueCode, MoreThanTheBoundsIsNotSent) {
    EXPECT_THROW(encodeValue(std::vector<KRValue>(KRValueBounds::kValues)), KRError);
    for (const KRValue& innermost : {KRValue(), KRValue(std::vector<KRValue>())}) {
        KRValue deep = innermost;
        for (std::size_t i = innermost.isArray() ? 1 : 0; i < KRValueBounds::kDepth; ++i) {
            deep = KRValue::array(deep);
        }
        const Bytes bytes = toBytes(encodeValue(deep));
        EXPECT_EQ(decodeValue(asReceived(bytes), 0, bytes.size()), deep);
        EXPECT_THROW(encodeValue(KRValue::array(deep)), KRError);
    }
}

TEST(KRValueCode, LargeBinariesAreSharedOnBothWays) {
    const KRBinary pixels = KRBinary::copyOf(Bytes(614400, 5).data(), 614400);
    const KRComposedBytes composed = encodeValue(KRValue::array(1, pixels, 2));
    const auto pieces = composed.getPieces();
    ASSERT_EQ(pieces.size(), 3U);
    EXPECT_EQ(pieces[1].data, pixels.data());
    const KRReceivedBytes received = asReceived(toBytes(composed));
    const KRValue value = decodeValue(received, 0, received.size);
    EXPECT_EQ(value, KRValue::array(1, pixels, 2));
    EXPECT_EQ(value[1].GetBinary().data(), received.bytes.get() + pieces[1].offset);
}

TEST(KRMessage, ARequestComesBackAsItWent) {
    const KRRequest request{"broker", 0x123456789abcdefULL, KRRequest::Call, "Module", "method", {}};
    const KRRequest read = KRRequest::parse(asReceived(toBytes(request.compose(KRValue::array(1, "a")))));
    EXPECT_EQ(read.broker, "broker");
    EXPECT_EQ(read.sequence, request.sequence);
    EXPECT_EQ(read.module, "Module");
    EXPECT_EQ(read.method, "method");
    EXPECT_EQ(read.arguments.decode(), KRValue::array(1, "a"));
}

TEST(KRMessage, EveryBeginningOfAMessageIsRefusedAndEveryOtherChangeIsSurvived) {
    const Bytes request = toBytes(KRRequest{"broker", 1, KRRequest::Call, "Module", "method", {}}.compose(
        KRValue::array(1, "a", KRBinary::copyOf("abc", 3))));
    for (std::size_t size = 0; size + 4 < request.size(); ++size) {
        const KRReceivedBytes part = asReceived(Bytes(request.begin(), request.begin() + size));
        EXPECT_THROW(KRRequest::parse(part).arguments.decode(), KRMalformed) << size;
        EXPECT_THROW(KRReply::parse(part).value.decode(), KRMalformed) << size;
    }
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        Bytes changed = request;
        for (int k = 0; k < 3; ++k) {
            changed[random() % changed.size()] = static_cast<unsigned char>(random());
        }
        try {
            KRRequest::parse(asReceived(changed)).arguments.decode();
        } catch (const KRMalformed&) { // as well as not
        }
    }
}

TEST(KRMessage, WhatNoBrokerSendsIsRefused) {
    const auto parsesRequest = [](const Bytes& bytes) {
        try {
            KRRequest::parse(asReceived(bytes));
        } catch (const KRMalformed&) {
            return false;
        }
        return true;
    };
    KRRequest request{"broker", 1, KRRequest::Inquiry, std::string(65535, 'm'), "method", {}};
    EXPECT_TRUE(parsesRequest(toBytes(request.compose(1))));
    request.module += 'm'; // with its end more bytes than a name may have
    EXPECT_FALSE(parsesRequest(toBytes(request.compose(1))));
    request.module = "Module";
    request.kind = 2;
    EXPECT_FALSE(parsesRequest(toBytes(request.compose(1))));
    request.kind = KRRequest::Call;
    Bytes endless = toBytes(request.compose(1));
    endless.at(4 + 4 + 6) = 'x'; // behind the header, the length and "broker"
    EXPECT_FALSE(parsesRequest(endless));

    const KRReply reply{"broker", 1, 3, {}};
    EXPECT_THROW(KRReply::parse(asReceived(toBytes(reply.compose(1)))), KRMalformed);
    const KRReply unknown{"broker", 1, KRReply::Unknown, {}};
    EXPECT_EQ(KRReply::parse(asReceived(toBytes(unknown.compose(1)))).status, 2U);
}

} // namespace

} // namespace KR::test
