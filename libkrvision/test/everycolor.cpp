#include "everycolor.hpp"

#include "conversionformulas.hpp"

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

namespace KR::test {

namespace {

using Bytes = std::vector<unsigned char>;
constexpr std::size_t kChunk = 1 << 16;

} // namespace

std::vector<unsigned char> randomBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<unsigned char>(random()); });
    return bytes;
}

std::string nameOf(const testing::TestParamInfo<const ConversionPath*>& path) {
    return path.param->name;
}

std::size_t countWrongBgrColors(const ConversionPath& path) {
    Bytes bgr(kChunk * 6);
    Bytes yuv(kChunk * 4);
    std::size_t wrong = 0;
    for (unsigned b = 0; b < 256; ++b) {
        for (unsigned k = 0; k < kChunk; ++k) {
            const unsigned char first[3] = {static_cast<unsigned char>(b), static_cast<unsigned char>(k >> 8),
                                            static_cast<unsigned char>(k)};
            unsigned char* pair = &bgr[k * 6];
            std::copy_n(first, 3, pair);
            pair[3] = static_cast<unsigned char>(first[2] + 77);
            pair[4] = static_cast<unsigned char>(first[0] * 5);
            pair[5] = static_cast<unsigned char>(first[1] ^ first[0]);
        }
        path.yuv422FromBgr(bgr.data(), yuv.data(), kChunk);
        for (std::size_t k = 0; k < kChunk; ++k) {
            formulas::BgrPair pair;
            std::copy_n(&bgr[k * 6], 6, pair.begin());
            const auto expected = formulas::yuv422FromBgr(pair);
            wrong += std::memcmp(&yuv[k * 4], expected.data(), 4) != 0 ? 1 : 0;
        }
    }
    return wrong;
}

std::size_t countWrongYuvColors(const ConversionPath& path) {
    Bytes yuv(kChunk * 4);
    Bytes bgr(kChunk * 6);
    std::size_t wrong = 0;
    for (unsigned y = 0; y < 256; ++y) {
        for (unsigned k = 0; k < kChunk; ++k) {
            unsigned char* pair = &yuv[k * 4];
            pair[0] = static_cast<unsigned char>(y);
            pair[1] = static_cast<unsigned char>(k >> 8);
            pair[2] = static_cast<unsigned char>(y * 5 + 77); // every value in the course of the loop
            pair[3] = static_cast<unsigned char>(k);
        }
        path.bgrFromYuv422(yuv.data(), bgr.data(), kChunk);
        for (std::size_t k = 0; k < kChunk; ++k) {
            formulas::Yuv422Pair pair;
            std::copy_n(&yuv[k * 4], 4, pair.begin());
            const auto expected = formulas::bgrFromYuv422(pair);
            wrong += std::memcmp(&bgr[k * 6], expected.data(), 6) != 0 ? 1 : 0;
        }
    }
    return wrong;
}

} // namespace KR::test
