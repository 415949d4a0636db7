#include "descriptorlimits.hpp"
#include "krborrowings.hpp"
#include "krlendings.hpp"
#include "krlocalpool.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>

#include <cstring>

namespace KR {
namespace {

constexpr std::size_t kPixels = 614400;
constexpr std::size_t kMega = 1 << 20;

KRBinary share(KRLocalPool& pool, std::size_t size, unsigned char value) {
    const auto bytes = pool.allocate(size);
    if (!bytes) {
        return {};
    }
    std::memset(bytes.get(), value, size);
    return {bytes, size};
}

/// One sender and one receiver, without a socket between them.
class Lending : public testing::Test {
protected:
    Lending() { reconnect(); }

    /// As a message would carry it. Without bytes: it is not lent.
    KRBinary pass(const KRBinary& binary) {
        KRLocalFrame frame;
        std::vector<std::shared_ptr<const KRSharedMemory>> memories;
        if (!lendings->lend(binary, frame, memories)) {
            return {};
        }
        for (std::size_t i = 0; i < memories.size(); ++i) {
            borrowings.add(frame.memories[i], KRDescriptor(dup(memories[i]->getDescriptor())));
        }
        return borrowings.take(frame.binaries[0]);
    }
    void reconnect() {
        lendings = std::make_shared<KRLendings>(
            pool, std::make_shared<KRLendings::Bytes>(0),
            std::make_unique<const KRForeignMemory>(
                KRDescriptor(dup(borrowings.getReturns().getDescriptor())), KRReturns::kSize));
        pool->attach(lendings);
    }

    const std::shared_ptr<KRLocalPool> pool = std::make_shared<KRLocalPool>(16 * kMega);
    KRBorrowings borrowings;
    std::shared_ptr<KRLendings> lendings;
};

TEST(KRLocalPool, UsesASlotAgainOnceItsLastHandleIsGone) {
    const auto pool = std::make_shared<KRLocalPool>(16 * kMega);
    auto first = pool->allocate(kPixels);
    ASSERT_TRUE(first);
    auto copy = first;
    const unsigned char* const address = first.get();
    first = nullptr;
    EXPECT_NE(pool->allocate(kPixels).get(), address);
    copy = nullptr;
    EXPECT_EQ(pool->allocate(kPixels).get(), address);
}

TEST(KRLocalPool, StaysWithinItsLimitAndRecovers) {
    const auto pool = std::make_shared<KRLocalPool>(4 * kMega);
    std::vector<KRBinary> held;
    for (;;) {
        KRBinary next = share(*pool, kPixels, 1);
        if (next.size() == 0) {
            break;
        }
        held.push_back(std::move(next));
    }
    EXPECT_GE(held.size(), 5u);
    EXPECT_LE(pool->getSize(), 4 * kMega);
    held.pop_back();
    EXPECT_GT(share(*pool, kPixels, 1).size(), 0u);
}

TEST(KRLocalPool, ReusesUnusedMemoryForAnotherSize) {
    const auto pool = std::make_shared<KRLocalPool>(4 * kMega);
    std::vector<KRBinary> held;
    while (held.empty() || held.back().size() > 0) {
        held.push_back(share(*pool, kPixels, 1));
    }
    EXPECT_EQ(share(*pool, 3 * kMega, 1).size(), 0u);
    held.clear();
    EXPECT_GT(share(*pool, 3 * kMega, 1).size(), 0u);
    EXPECT_LE(pool->getSize(), 4 * kMega);
}

TEST(KRLocalPool, ReturnsUnusedMemory) {
    const auto pool = std::make_shared<KRLocalPool>(64 * kMega);
    const KRBinary held = share(*pool, kPixels, 1);
    const std::size_t one = pool->getSize();
    EXPECT_GT(share(*pool, 5 * kMega, 1).size(), 0u);
    EXPECT_GT(pool->getSize(), one);
    EXPECT_TRUE(pool->trim(std::chrono::seconds(0)));
    EXPECT_EQ(pool->getSize(), one);
    EXPECT_EQ(held.data()[kPixels - 1], 1);
}

TEST(KRLocalPool, HasNothingForSmallBinariesOrWithoutALimit) {
    EXPECT_FALSE(std::make_shared<KRLocalPool>(0)->allocate(kPixels));
    EXPECT_FALSE(std::make_shared<KRLocalPool>(kMega)->allocate(100));
}

TEST_F(Lending, TheReceiverSeesTheVeryMemoryThatWasFilled) {
    const auto bytes = pool->allocate(kPixels);
    std::memset(bytes.get(), 5, kPixels);
    const KRBinary got = pass(KRBinary(bytes, kPixels));
    ASSERT_EQ(got.size(), kPixels);
    EXPECT_EQ(got.data()[kPixels - 1], 5);
    bytes[100] = 6; // nobody else may do that; shows that nothing was copied
    EXPECT_EQ(got.data()[100], 6);
}

TEST_F(Lending, ASlotIsUsedAgainOnlyWhenTheReceiversLastCopyIsGone) {
    KRBinary sent = share(*pool, kPixels, 5);
    const unsigned char* const address = sent.data();
    KRBinary got = pass(sent);
    KRBinary copy = got;
    sent = {};
    got = {};
    EXPECT_NE(pool->allocate(kPixels).get(), address);
    EXPECT_EQ(copy.data()[0], 5);
    EXPECT_EQ(lendings->collect(), 1u);
    copy = {};
    EXPECT_EQ(lendings->collect(), 0u);
    EXPECT_EQ(pool->getUsedSlots(), 0u);
    EXPECT_EQ(pool->allocate(kPixels).get(), address);
}

TEST_F(Lending, ACopyIsMadeInTheSlotThatHasJustBeenReturned) {
    const std::vector<unsigned char> pixels(kPixels, 5);
    const KRBinary outside = KRBinary::copyOf(pixels.data(), pixels.size());
    const unsigned char* slot = nullptr;
    for (int i = 0; i < 5; ++i) {
        KRBinary copy = lendings->toShared(outside);
        ASSERT_EQ(copy, outside);
        if (i > 0) {
            EXPECT_EQ(copy.data(), slot) << i; // still in the cache
        }
        slot = copy.data();
        const KRBinary got = pass(copy);
        copy = {};
        EXPECT_EQ(got, outside);
    }
}

TEST_F(Lending, ACopyStartsAsFarIntoACacheLineAsItsOriginal) {
    const auto position = [](const KRBinary& binary) {
        return reinterpret_cast<std::uintptr_t>(binary.data()) % 64;
    };
    const boost::shared_ptr<unsigned char[]> bytes(new unsigned char[kPixels + 64]());
    for (std::size_t shift = 0; shift < 64; ++shift) {
        const KRBinary outside(boost::shared_ptr<unsigned char[]>(bytes, bytes.get() + shift), kPixels);
        const KRBinary copy = lendings->toShared(outside);
        ASSERT_EQ(copy, outside);
        EXPECT_EQ(position(copy), position(outside));
    }
}

TEST_F(Lending, APoolThatIsShortTakesWhatHasBeenGivenBack) {
    std::vector<KRBinary> got;
    const std::size_t size = 5 * kMega / 2;
    for (int i = 0; i < 3; ++i) {
        got.push_back(pass(share(*pool, size, 1)));
        ASSERT_EQ(got.back().size(), size);
    }
    got.clear();
    std::vector<KRBinary> held;
    for (int i = 0; i < 6; ++i) {
        held.push_back(share(*pool, size, 1));
        EXPECT_GT(held.back().size(), 0u) << i;
    }
}

TEST_F(Lending, OneBinaryCanBeLentManyTimes) {
    const KRBinary sent = share(*pool, kPixels, 5);
    std::vector<KRBinary> got;
    for (int i = 0; i < 10; ++i) {
        got.push_back(pass(sent));
        ASSERT_EQ(got.back().size(), kPixels);
    }
    EXPECT_EQ(pool->getUsedSlots(), 1u);
    got.clear();
    EXPECT_EQ(lendings->collect(), 0u);
}

TEST_F(Lending, AReceiverThatKeepsEverythingGetsHalfOfThePool) {
    std::vector<KRBinary> got;
    for (;;) {
        KRBinary next = pass(share(*pool, 2 * kMega, 1));
        if (next.size() == 0) {
            break;
        }
        got.push_back(std::move(next));
    }
    EXPECT_EQ(got.size(), 4u);
    EXPECT_GT(share(*pool, 2 * kMega, 1).size(), 0u);
    got.pop_back();
    EXPECT_GT(pass(share(*pool, 2 * kMega, 1)).size(), 0u);
}

TEST_F(Lending, AReceiverMayHoldAsManyBinariesAsItCanGiveBack) {
    const auto large = std::make_shared<KRLocalPool>(256 * kMega);
    lendings = std::make_shared<KRLendings>(
        large, std::make_shared<KRLendings::Bytes>(0),
        std::make_unique<const KRForeignMemory>(KRDescriptor(dup(borrowings.getReturns().getDescriptor())),
                                                KRReturns::kSize));
    const KRBinary image = share(*large, kMega / 16, 1);
    std::vector<KRBinary> held;
    for (std::size_t i = 0; i < KRReturns::kTickets; ++i) {
        held.push_back(pass(image));
        ASSERT_GT(held.back().size(), 0u) << i;
    }
    EXPECT_EQ(pass(image).size(), 0u);
    held.resize(KRReturns::kTickets / 2);
    EXPECT_GT(pass(image).size(), 0u);
}

TEST_F(Lending, WhatIsHeldWhenTheConnectionClosesStaysAsItIs) {
    KRBinary got = pass(share(*pool, kPixels, 5));
    ASSERT_TRUE(lendings->close(getpid())); // the other is alive: it is this process
    pool->keepUntilReturned(lendings);
    lendings = nullptr;
    for (int i = 0; i < 10; ++i) {
        share(*pool, kPixels, 9);
    }
    EXPECT_EQ(got.data()[0], 5);
    EXPECT_EQ(pool->getUsedSlots(), 1u);
    got = {};
    pool->trim(std::chrono::hours(1));
    EXPECT_EQ(pool->getUsedSlots(), 0u);
}

TEST_F(Lending, WhatIsHeldStaysAsItIsThoughNoDescriptorIsFreeWhenTheConnectionCloses) {
    if (!test::kCanTakeAllDescriptors) {
        GTEST_SKIP() << "the sanitizer needs descriptors";
    }
    KRBinary got = pass(share(*pool, kPixels, 5));
    {
        const test::AllDescriptorsTaken all;
        ASSERT_TRUE(lendings->close(getpid()));
        EXPECT_EQ(lendings->collect(), 1U);
    }
    EXPECT_EQ(lendings->collect(), 1U);
    EXPECT_EQ(pool->getUsedSlots(), 1U);
    got = {};
    EXPECT_EQ(lendings->collect(), 0U);
    EXPECT_EQ(pool->getUsedSlots(), 0U);
}

TEST_F(Lending, WhatIsNotSentAfterAllIsTakenBack) {
    const KRBinary first = share(*pool, kPixels, 5);
    const KRBinary held = pass(first);
    for (int round = 0; round < 3; ++round) {
        KRLocalFrame frame;
        std::vector<std::shared_ptr<const KRSharedMemory>> memories;
        const KRBinary large = share(*pool, 4 * kMega, 6);
        EXPECT_FALSE(lendings->lend(large, frame, memories, 0)); // the other does not have that memory
        ASSERT_TRUE(lendings->lend(first, frame, memories, 0));
        ASSERT_TRUE(lendings->lend(large, frame, memories));
        ASSERT_EQ(memories.size(), 1U);
        lendings->takeBack(frame);
        EXPECT_EQ(lendings->collect(), 1U);
    }
    EXPECT_EQ(pool->getUsedSlots(), 1U);
    EXPECT_EQ(pass(share(*pool, 4 * kMega, 7)).data()[0], 7); // with its memory
    EXPECT_EQ(lendings->collect(), 1U);
    EXPECT_EQ(held.data()[0], 5);
    EXPECT_NO_THROW(lendings->check());
}

TEST_F(Lending, MemoryThatIsGoneIsReportedToWhoeverHasIt) {
    const std::size_t size = kPixels;
    pass(share(*pool, size, 5));
    EXPECT_TRUE(lendings->takeForgotten().empty());
    pool->trim(std::chrono::seconds(0));
    const auto forgotten = lendings->takeForgotten();
    ASSERT_EQ(forgotten.size(), 1u);
    borrowings.forget(forgotten[0]);
    EXPECT_TRUE(borrowings.isEmpty());
    EXPECT_EQ(pass(share(*pool, size, 6)).data()[0], 6);
}

TEST_F(Lending, ReturningASlotThatIsNotHeldIsAnError) {
    KRLocalFrame frame;
    std::vector<std::shared_ptr<const KRSharedMemory>> memories;
    const KRBinary sent = share(*pool, kPixels, 5);
    ASSERT_TRUE(lendings->lend(sent, frame, memories));
    const KRLocalFrame::Binary lent = frame.binaries[0];
    unsigned char* const page = borrowings.getReturns().data();
    KRReturns::write(page, lent.ticket, lent.generation);
    EXPECT_EQ(lendings->collect(), 0u);
    KRReturns::write(page, lent.ticket, lent.generation + 1); // once more
    EXPECT_THROW(lendings->lend(sent, frame, memories), KRLocalMalformed);

    reconnect();
    frame = {};
    KRReturns::write(page, 0, 0);
    ASSERT_TRUE(lendings->lend(sent, frame, memories));
    KRReturns::write(page, frame.binaries[0].ticket, 77);
    EXPECT_EQ(lendings->collect(), 1u);
    EXPECT_THROW(lendings->check(), KRLocalMalformed);
}

TEST(KRForeignMemory, IsAMemfdWithSealsOfTheSizeAnnounced) {
    const KRSharedMemory good(4096);
    EXPECT_NO_THROW(KRForeignMemory(KRDescriptor(dup(good.getDescriptor())), 4096));
    EXPECT_THROW(KRForeignMemory(KRDescriptor(dup(good.getDescriptor())), 8192), KRLocalMalformed);
    EXPECT_THROW(KRForeignMemory(KRDescriptor(dup(good.getDescriptor())), 0), KRLocalMalformed);
    EXPECT_THROW(KRForeignMemory(KRDescriptor(open("/dev/zero", O_RDWR | O_CLOEXEC)), 4096),
                 KRLocalMalformed);
    const KRDescriptor unsealed(memfd_create("unsealed", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(ftruncate(unsealed.get(), 4096), 0);
    EXPECT_THROW(KRForeignMemory(unsealed, 4096), KRLocalMalformed);
}

TEST(KRSharedMemory, CannotBeMappedForWritingNorChangeItsSize) {
    const KRSharedMemory memory(4096);
    memory.data()[0] = 1; // its owner writes
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, memory.getDescriptor(), 0), MAP_FAILED);
    EXPECT_NE(ftruncate(memory.getDescriptor(), 1), 0);
    EXPECT_NE(ftruncate(memory.getDescriptor(), 8192), 0);
    EXPECT_LT(write(memory.getDescriptor(), "x", 1), 0);
    const KRForeignMemory foreign(KRDescriptor(dup(memory.getDescriptor())), 4096);
    EXPECT_NE(mprotect(const_cast<unsigned char*>(foreign.data()), 4096, PROT_READ | PROT_WRITE), 0);
}

TEST(KRBorrowings, RefusesBinariesOutsideTheirMemory) {
    KRBorrowings borrowings;
    const KRSharedMemory memory(8192);
    borrowings.add({5, 8192}, KRDescriptor(dup(memory.getDescriptor())));
    EXPECT_EQ(borrowings.take({5, 0, 1, 4096, 4096}).size(), 4096u);
    EXPECT_THROW(borrowings.take({6, 0, 1, 0, 1}), KRLocalMalformed);
    EXPECT_THROW(borrowings.take({5, 0, 1, 4097, 4096}), KRLocalMalformed);
    EXPECT_THROW(borrowings.take({5, 0, 1, 8193, 0}), KRLocalMalformed);
    EXPECT_THROW(borrowings.take({5, 0, 1, ~std::uint64_t{0}, 2}), KRLocalMalformed);
    EXPECT_THROW(borrowings.take({5, KRReturns::kTickets, 1, 0, 1}), KRLocalMalformed);
    EXPECT_THROW(borrowings.add({5, 8192}, KRDescriptor(dup(memory.getDescriptor()))), KRLocalMalformed);
    EXPECT_THROW(borrowings.add({0, 8192}, KRDescriptor(dup(memory.getDescriptor()))), KRLocalMalformed);
    EXPECT_THROW(borrowings.forget(6), KRLocalMalformed);
}

} // namespace
} // namespace KR
