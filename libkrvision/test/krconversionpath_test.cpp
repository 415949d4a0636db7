#include "krconversionpath.hpp"

#include "everycolor.hpp"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using KR::ConversionPath;
using KR::test::nameOf;
using KR::test::randomBytes;
using Bytes = std::vector<unsigned char>;

constexpr unsigned char kCanary = 0xA5;

// Memory between two inaccessible pages.
class GuardedMemory {
public:
    explicit GuardedMemory(std::size_t size)
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          usable_((size + page_ - 1) / page_ * page_) {
        void* mapped =
            mmap(nullptr, usable_ + 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) {
            throw std::bad_alloc();
        }
        begin_ = static_cast<unsigned char*>(mapped) + page_;
        mprotect(begin_ - page_, page_, PROT_NONE);
        mprotect(begin_ + usable_, page_, PROT_NONE);
    }
    ~GuardedMemory() { munmap(begin_ - page_, usable_ + 2 * page_); }
    GuardedMemory(const GuardedMemory&) = delete;
    GuardedMemory& operator=(const GuardedMemory&) = delete;

    unsigned char* begin() const { return begin_; }
    unsigned char* end() const { return begin_ + usable_; }

private:
    std::size_t page_;
    std::size_t usable_;
    unsigned char* begin_;
};

// One conversion in a common form: bytes in, bytes out, planes one after another.
struct Conversion {
    const char* name;
    std::size_t bytesIn;  // per pair
    std::size_t bytesOut; // per pair
    void (*run)(const ConversionPath&, const unsigned char* in, unsigned char* out, std::size_t pairs);
};

const Conversion kConversions[] = {
    {"Yuv422FromBgr", 6, 4,
     [](const ConversionPath& path, const unsigned char* in, unsigned char* out, std::size_t pairs) {
         path.yuv422FromBgr(in, out, pairs);
     }},
    {"BgrFromYuv422", 4, 6,
     [](const ConversionPath& path, const unsigned char* in, unsigned char* out, std::size_t pairs) {
         path.bgrFromYuv422(in, out, pairs);
     }},
    {"Planes444FromYuv422", 4, 6,
     [](const ConversionPath& path, const unsigned char* in, unsigned char* out, std::size_t pairs) {
         path.planes444FromYuv422(in, out, out + 2 * pairs, out + 4 * pairs, pairs);
     }},
    {"Planes422FromYuv422", 4, 4,
     [](const ConversionPath& path, const unsigned char* in, unsigned char* out, std::size_t pairs) {
         path.planes422FromYuv422(in, out, out + 2 * pairs, out + 3 * pairs, pairs);
     }},
};

class KRConversionPath : public testing::TestWithParam<const ConversionPath*> {
protected:
    const ConversionPath& path() const { return *GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Forced, KRConversionPath, testing::ValuesIn(KR::conversionPaths()), nameOf);

// ---- every colour

TEST_P(KRConversionPath, ConvertsEveryBgrColorByTheFormulas) {
    EXPECT_EQ(KR::test::countWrongBgrColors(path()), 0u);
}

TEST_P(KRConversionPath, ConvertsEveryYuvColorByTheFormulas) {
    EXPECT_EQ(KR::test::countWrongYuvColors(path()), 0u);
}

// ---- all positions in a vector, with arbitrary neighbours

TEST_P(KRConversionPath, GivesTheSameBytesAsTheScalarOne) {
    const ConversionPath& scalar = *KR::conversionPaths().back();
    for (const Conversion& conversion : kConversions) {
        for (unsigned seed = 0; seed < 20; ++seed) {
            const std::size_t pairs = 1000 + 97 * seed;
            const Bytes in = randomBytes(pairs * conversion.bytesIn, seed);
            Bytes out(pairs * conversion.bytesOut);
            Bytes expected(out.size());
            conversion.run(path(), in.data(), out.data(), pairs);
            conversion.run(scalar, in.data(), expected.data(), pairs);
            EXPECT_EQ(out, expected) << conversion.name;
        }
    }
}

TEST_P(KRConversionPath, GivesTheSameBytesAsTheScalarOneForExtremes) {
    const ConversionPath& scalar = *KR::conversionPaths().back();
    const unsigned char extremes[] = {0, 1, 15, 16, 127, 128, 129, 235, 240, 254, 255};
    std::mt19937 random(1);
    for (const Conversion& conversion : kConversions) {
        Bytes in(20000 * conversion.bytesIn);
        std::generate(in.begin(), in.end(), [&] { return extremes[random() % std::size(extremes)]; });
        Bytes out(20000 * conversion.bytesOut);
        Bytes expected(out.size());
        conversion.run(path(), in.data(), out.data(), 20000);
        conversion.run(scalar, in.data(), expected.data(), 20000);
        EXPECT_EQ(out, expected) << conversion.name;
    }
}

TEST_P(KRConversionPath, SplitsPairsIntoPlanes) {
    const std::size_t pairs = 333;
    const Bytes yuv = randomBytes(pairs * 4, 3);
    Bytes y(2 * pairs), u(2 * pairs), v(2 * pairs);
    path().planes444FromYuv422(yuv.data(), y.data(), u.data(), v.data(), pairs);
    for (std::size_t k = 0; k < pairs; ++k) {
        EXPECT_EQ(y[2 * k], yuv[4 * k]);
        EXPECT_EQ(u[2 * k], yuv[4 * k + 1]);
        EXPECT_EQ(v[2 * k], yuv[4 * k + 3]);
        EXPECT_EQ(y[2 * k + 1], yuv[4 * k + 2]);
        EXPECT_EQ(u[2 * k + 1], yuv[4 * k + 1]);
        EXPECT_EQ(v[2 * k + 1], yuv[4 * k + 3]);
    }
    path().planes422FromYuv422(yuv.data(), y.data(), u.data(), v.data(), pairs);
    for (std::size_t k = 0; k < pairs; ++k) {
        EXPECT_EQ(y[2 * k], yuv[4 * k]);
        EXPECT_EQ(y[2 * k + 1], yuv[4 * k + 2]);
        EXPECT_EQ(u[k], yuv[4 * k + 1]);
        EXPECT_EQ(v[k], yuv[4 * k + 3]);
    }
}

// ---- nothing outside the buffers

TEST_P(KRConversionPath, StaysWithinItsBuffers) {
    const ConversionPath& scalar = *KR::conversionPaths().back();
    const GuardedMemory in(4096);
    const GuardedMemory out(4096);
    for (const Conversion& conversion : kConversions) {
        for (std::size_t pairs = 0; pairs <= 200; ++pairs) {
            const std::size_t sizeIn = pairs * conversion.bytesIn;
            const std::size_t sizeOut = pairs * conversion.bytesOut;
            const Bytes pixels = randomBytes(sizeIn, static_cast<unsigned>(pairs));
            Bytes expected(sizeOut);
            conversion.run(scalar, pixels.data(), expected.data(), pairs);
            for (unsigned char* source : {in.begin(), in.end() - sizeIn}) {
                for (unsigned char* destination : {out.begin(), out.end() - sizeOut}) {
                    std::copy(pixels.begin(), pixels.end(), source);
                    std::fill(out.begin(), out.end(), kCanary);
                    conversion.run(path(), source, destination, pairs);
                    ASSERT_TRUE(std::equal(expected.begin(), expected.end(), destination))
                        << conversion.name << ", " << pairs << " pairs";
                    const auto outside = std::count(out.begin(), destination, kCanary) +
                                         std::count(destination + sizeOut, out.end(), kCanary);
                    ASSERT_EQ(static_cast<std::size_t>(outside),
                              static_cast<std::size_t>(out.end() - out.begin()) - sizeOut)
                        << conversion.name << ", " << pairs << " pairs";
                }
            }
        }
    }
}

TEST_P(KRConversionPath, NeedsNoAlignment) {
    const ConversionPath& scalar = *KR::conversionPaths().back();
    constexpr std::size_t kPairs = 75;
    for (const Conversion& conversion : kConversions) {
        const std::size_t sizeIn = kPairs * conversion.bytesIn;
        const std::size_t sizeOut = kPairs * conversion.bytesOut;
        const Bytes pixels = randomBytes(sizeIn, 9);
        Bytes expected(sizeOut);
        conversion.run(scalar, pixels.data(), expected.data(), kPairs);
        for (std::size_t shift = 0; shift < 64; ++shift) {
            Bytes in(sizeIn + 64);
            Bytes out(sizeOut + 64, kCanary);
            std::copy(pixels.begin(), pixels.end(), in.begin() + static_cast<std::ptrdiff_t>(shift));
            const std::size_t shiftOut = (shift * 7) % 64;
            conversion.run(path(), in.data() + shift, out.data() + shiftOut, kPairs);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), out.data() + shiftOut))
                << conversion.name;
            ASSERT_EQ(std::count(out.data(), out.data() + shiftOut, kCanary),
                      static_cast<std::ptrdiff_t>(shiftOut));
            ASSERT_EQ(std::count(out.data() + shiftOut + sizeOut, out.data() + out.size(), kCanary),
                      static_cast<std::ptrdiff_t>(64 - shiftOut));
        }
    }
}

TEST_P(KRConversionPath, LeavesItsSourceUnchanged) {
    for (const Conversion& conversion : kConversions) {
        const Bytes before = randomBytes(100 * conversion.bytesIn, 5);
        Bytes in = before;
        Bytes out(100 * conversion.bytesOut);
        conversion.run(path(), in.data(), out.data(), 100);
        EXPECT_EQ(in, before) << conversion.name;
    }
}

// ---- choosing

TEST(KRConversionPaths, EndWithTheScalarOne) {
    ASSERT_FALSE(KR::conversionPaths().empty());
    EXPECT_STREQ(KR::conversionPaths().back()->name, "scalar");
}

TEST(KRConversionPaths, TheFirstIsUsedUnlessAnotherIsForced) {
    const auto paths = KR::conversionPaths();
    EXPECT_EQ(&KR::conversionPath(), paths.front());
    KR::forceConversionPath(paths.back());
    EXPECT_EQ(&KR::conversionPath(), paths.back());
    KR::forceConversionPath(nullptr);
    EXPECT_EQ(&KR::conversionPath(), paths.front());
}

#if defined(__x86_64__)
TEST(KRConversionPaths, IncludeEveryInstructionSetOfThisProcessor) {
    std::vector<std::string> names;
    for (const ConversionPath* path : KR::conversionPaths()) {
        names.emplace_back(path->name);
    }
    const auto has = [&names](const char* name) { return std::count(names.begin(), names.end(), name) == 1; };
    EXPECT_EQ(has("SSSE3"), __builtin_cpu_supports("ssse3") != 0);
    EXPECT_EQ(has("SSE4"), __builtin_cpu_supports("sse4.2") != 0);
    EXPECT_EQ(has("AVX512_VBMI"),
              __builtin_cpu_supports("avx512vbmi") != 0 && __builtin_cpu_supports("avx512vnni") != 0);
    EXPECT_EQ(has("AVX2"), __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0);
}
#endif

} // namespace
