#include "krplatform/krvalue.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace KR {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

std::string print(const KRValue& value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

TEST(KRValue, IsInvalidByDefault) {
    const KRValue value;
    EXPECT_EQ(value.getType(), KRValue::Type::Invalid);
    EXPECT_FALSE(value.isValid());
    EXPECT_EQ(value, KRValue());
}

TEST(KRValue, HoldsWhatItIsMadeFrom) {
    EXPECT_EQ(KRValue(-7).to<int>(), -7);
    EXPECT_EQ(KRValue(std::numeric_limits<int>::min()).to<int>(), std::numeric_limits<int>::min());
    EXPECT_EQ(KRValue(2.5).to<float>(), 2.5f);
    EXPECT_EQ(KRValue("text").to<std::string>(), "text");
    EXPECT_EQ(KRValue(std::string_view("with\0zero", 9)).to<std::string>(), std::string("with\0zero", 9));
    EXPECT_TRUE(KRValue(KRBinary()).isBinary());
    EXPECT_TRUE(KRValue(std::vector<KRValue>()).isArray());
}

TEST(KRValue, HasExactlyOneType) {
    const std::vector<KRValue> values{KRValue(),   KRValue(1),          KRValue(1.0f),
                                      KRValue(""), KRValue(KRBinary()), KRValue::array()};
    for (std::size_t i = 0; i < values.size(); ++i) {
        const KRValue& value = values[i];
        EXPECT_EQ(static_cast<std::size_t>(value.getType()), i);
        EXPECT_EQ(value.isValid(), i != 0);
        EXPECT_EQ(value.isInt(), i == 1);
        EXPECT_EQ(value.isFloat(), i == 2);
        EXPECT_EQ(value.isString(), i == 3);
        EXPECT_EQ(value.isBinary(), i == 4);
        EXPECT_EQ(value.isArray(), i == 5);
    }
}

TEST(KRValue, StoresABoolAsAnInt) {
    EXPECT_TRUE(KRValue(true).isInt());
    EXPECT_EQ(KRValue(true).to<int>(), 1);
    EXPECT_EQ(KRValue(false).to<int>(), 0);
    EXPECT_TRUE(KRValue(-3).to<bool>());
    EXPECT_FALSE(KRValue(0).to<bool>());
}

TEST(KRValue, IsNotMadeFromAnIntegerThatMayNotFit) {
    EXPECT_FALSE((std::is_constructible_v<KRValue, unsigned>));
    EXPECT_FALSE((std::is_constructible_v<KRValue, long>));
    EXPECT_FALSE((std::is_constructible_v<KRValue, std::size_t>));
    EXPECT_TRUE((std::is_constructible_v<KRValue, unsigned short>));
}

TEST(KRValue, ReadsAnIntAsAFloatButNoFloatAsAnInt) {
    EXPECT_EQ(KRValue(3).to<float>(), 3.0f);
    EXPECT_THROW(KRValue(3.0f).to<int>(), KRError);
    EXPECT_THROW(KRValue(3.0f).to<bool>(), KRError);
}

TEST(KRValue, AWrongTypeIsAnErrorThatNamesBothTypes) {
    const auto names = [](const char* held, const char* wanted) {
        return ThrowsMessage<KRError>(
            AllOf(HasSubstr(held), HasSubstr(std::string("not of type ") + wanted)));
    };
    EXPECT_THAT([] { (void)KRValue("3").to<int>(); }, names("string", "int"));
    EXPECT_THAT([] { (void)KRValue("3").to<float>(); }, names("string", "float"));
    EXPECT_THAT([] { (void)KRValue(3).to<std::string>(); }, names("int", "string"));
    EXPECT_THAT([] { (void)KRValue().to<int>(); }, names("invalid", "int"));
    EXPECT_THAT([] { (void)KRValue::array(1).to<std::string>(); }, names("array", "string"));
    EXPECT_THAT([] { (void)KRValue(0.5f).GetBinary(); }, names("float", "binary"));
    EXPECT_THAT([] { (void)KRValue(KRBinary()).getSize(); }, names("binary", "array"));
    EXPECT_THAT([] { (void)KRValue(3).to<std::vector<int>>(); }, names("int", "array"));
    EXPECT_THAT([] { (void)KRValue::array(1, "b").to<std::vector<int>>(); }, names("string", "int"));
}

TEST(KRValue, CastsToWhatItHolds) {
    EXPECT_EQ(static_cast<int>(KRValue(4)), 4);
    EXPECT_EQ(static_cast<float>(KRValue(4)), 4.0f);
    EXPECT_EQ(static_cast<std::string>(KRValue("4")), "4");
    EXPECT_THROW((void)static_cast<int>(KRValue("4")), KRError);
}

TEST(KRValue, AnArrayConvertsToAVectorAndBack) {
    const std::vector<std::string> names{"a", "b"};
    EXPECT_EQ(KRValue(names).to<std::vector<std::string>>(), names);
    const std::vector<bool> flags{true, false};
    EXPECT_EQ(KRValue(flags).to<std::vector<bool>>(), flags);
    const std::vector<std::vector<int>> nested{{1}, {}, {2, 3}};
    EXPECT_EQ(KRValue(nested).to<std::vector<std::vector<int>>>(), nested);
    EXPECT_THAT(KRValue::array(1, 2.5f).to<std::vector<float>>(), ElementsAre(1.0f, 2.5f));
}

TEST(KRValue, ANewSizeKeepsTheElementsThatFit) {
    KRValue value = KRValue::array(1, 2, 3);
    value.arraySetSize(2);
    EXPECT_EQ(value, KRValue::array(1, 2));
    value.arraySetSize(3);
    EXPECT_EQ(value, KRValue::array(1, 2, KRValue()));
    value = "no array";
    value.arraySetSize(0);
    EXPECT_EQ(value, KRValue::array());
}

TEST(KRValue, AnElementPastTheEndIsAnErrorThatNamesIndexAndSize) {
    KRValue value = KRValue::array(1, 2);
    value[1] = "new";
    EXPECT_EQ(value, KRValue::array(1, "new"));
    EXPECT_THAT([&] { value[2] = 0; },
                ThrowsMessage<KRError>(AllOf(HasSubstr("2 elements"), HasSubstr("element 2"))));
    EXPECT_THAT([&] { (void)std::as_const(value)[static_cast<std::size_t>(-1)]; },
                ThrowsMessage<KRError>(HasSubstr("element -1")));
    EXPECT_THROW((void)KRValue::array()[0], KRError);
    EXPECT_THROW((void)KRValue(5)[0], KRError);
}

TEST(KRValue, MayBeAssignedOneOfItsOwnElements) {
    KRValue value = KRValue::array(KRValue::array("long enough to live on the heap", 2), 3);
    value = value[0];
    EXPECT_EQ(value, KRValue::array("long enough to live on the heap", 2));
    value = std::move(value[0]);
    EXPECT_EQ(value, "long enough to live on the heap");
    value = KRValue::array(7);
    value = value[0];
    EXPECT_EQ(value, 7);
}

TEST(KRValue, MayBeAssignedToOneOfItsOwnElements) {
    KRValue value = KRValue::array(KRValue::array(1), 2);
    value[0] = value;
    EXPECT_EQ(value, KRValue::array(KRValue::array(KRValue::array(1), 2), 2));
    value = *&value;
    EXPECT_EQ(value, KRValue::array(KRValue::array(KRValue::array(1), 2), 2));
}

TEST(KRValue, IsEqualToAValueOfTheSameTypeAndContentOnly) {
    EXPECT_EQ(KRValue::array(1, KRValue::array("a")), KRValue::array(1, KRValue::array("a")));
    EXPECT_NE(KRValue(1), KRValue(1.0f));
    EXPECT_NE(KRValue(0), KRValue());
    EXPECT_NE(KRValue(KRBinary::copyOf("a", 1)), KRValue("a"));
    EXPECT_NE(KRValue::array(1), KRValue::array(1, 1));
}

TEST(KRValue, PrintsReadably) {
    EXPECT_EQ(print(KRValue()), "invalid");
    EXPECT_EQ(print(3), "3");
    EXPECT_EQ(print(0.5f), "0.5");
    EXPECT_EQ(print("text"), "\"text\"");
    EXPECT_EQ(print(KRBinary::copyOf("1234", 4)), "<4 bytes>");
    EXPECT_EQ(print(KRValue::array(1, "a", KRValue::array())), "[1, \"a\", []]");
}

TEST(KRBinary, ACopyOfAValueCopiesNoBytes) {
    const KRBinary bytes = KRBinary::copyOf("pixels", 6);
    const KRValue value(bytes);
    const KRValue copy = KRValue::array(value, value); // NOLINT: the copy is the point
    EXPECT_EQ(copy[0].GetBinary().data(), bytes.data());
    EXPECT_EQ(copy[1].to<KRBinary>().data(), bytes.data());
}

TEST(KRBinary, CopiesBytesThatTheCallerMayChange) {
    std::string bytes = "before";
    KRValue value;
    value.SetBinary(bytes.data(), bytes.size());
    bytes = "after!";
    EXPECT_EQ(value.GetBinary(), KRBinary::copyOf("before", 6));
    value.SetBinary(nullptr, 0);
    EXPECT_EQ(value.GetBinary().size(), 0u);
}

TEST(KRBinary, IsEqualToOneOfEqualBytes) {
    EXPECT_EQ(KRBinary::copyOf("ab", 2), KRBinary::copyOf("ab", 2));
    EXPECT_FALSE(KRBinary::copyOf("ab", 2) == KRBinary::copyOf("ac", 2));
    EXPECT_FALSE(KRBinary::copyOf("ab", 2) == KRBinary::copyOf("ab", 1));
    EXPECT_EQ(KRBinary(), KRBinary::copyOf("", 0));
}

TEST(KRBinary, KeepsTheOwnerOfTheBytesUntilTheLastCopyIsDestroyed) {
    static constexpr unsigned char kFrame[] = {1, 2, 3};
    bool released = false;
    KRValue value;
    {
        const boost::shared_ptr<const unsigned char[]> frame(kFrame,
                                                             [&](const unsigned char*) { released = true; });
        value.SetBinary(KRBinary(frame, sizeof kFrame));
    }
    EXPECT_EQ(value.GetBinary().data(), kFrame);
    KRValue copy = value;
    value = 0;
    EXPECT_FALSE(released);
    copy.arraySetSize(0);
    EXPECT_TRUE(released);
}

TEST(KRBinary, AllocatesFromTheHeapWhateverTheRegisteredAllocatorLacks) {
    static std::vector<unsigned char> pool(100);
    static int asked = 0;
    setBinaryAllocator([](std::size_t size) noexcept {
        ++asked;
        const bool fits = size <= pool.size();
        return fits ? boost::shared_ptr<unsigned char[]>(pool.data(), [](unsigned char*) {}) : nullptr;
    });
    EXPECT_EQ(KRBinary::allocate(100).get(), pool.data());
    const auto large = KRBinary::allocate(101);
    EXPECT_EQ(asked, 2);
    setBinaryAllocator(nullptr);
    const auto small = KRBinary::allocate(100);
    EXPECT_EQ(asked, 2);
    ASSERT_TRUE(large && small);
    EXPECT_NE(small.get(), pool.data());
    std::fill_n(large.get(), 101, static_cast<unsigned char>(7));
    const KRBinary shared(large, 101);
    EXPECT_EQ(shared.data(), large.get());
    EXPECT_EQ(shared.data()[100], 7);
}

TEST(KRBinary, IsReadAndReleasedByManyThreads) {
    const auto value = std::make_unique<KRValue>(KRBinary::copyOf("shared", 6));
    std::vector<std::thread> readers;
    for (int i = 0; i < 4; ++i) {
        readers.emplace_back([copy = *value] {
            for (int round = 0; round < 1000; ++round) {
                const KRValue another = copy; // NOLINT: the copy is the point
                EXPECT_EQ(another.GetBinary().data()[round % 6], "shared"[round % 6]);
            }
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
}

} // namespace
} // namespace KR
