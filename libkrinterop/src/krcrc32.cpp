#include "krcrc32.hpp"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace KR {

namespace {

constexpr std::uint32_t kPolynomial = 0xEDB88320; // reflected

// ---- tables: eight bytes per step

using Tables = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr Tables makeTables() {
    Tables tables{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
        }
        tables[0][i] = crc;
    }
    for (std::size_t k = 1; k < tables.size(); ++k) {
        for (std::size_t i = 0; i < 256; ++i) {
            tables[k][i] = (tables[k - 1][i] >> 8) ^ tables[0][tables[k - 1][i] & 0xFF];
        }
    }
    return tables;
}
constexpr Tables kTables = makeTables();

// Here and below, the CRC is the remainder itself, not inverted.
std::uint32_t updateByTable(std::uint32_t crc, const unsigned char* bytes, std::size_t size) noexcept {
    for (; size >= 8; bytes += 8, size -= 8) {
        std::uint32_t low, high;
        std::memcpy(&low, bytes, 4);
        std::memcpy(&high, bytes + 4, 4);
        low ^= crc;
        crc = kTables[7][low & 0xFF] ^ kTables[6][low >> 8 & 0xFF] ^ kTables[5][low >> 16 & 0xFF] ^
              kTables[4][low >> 24] ^ kTables[3][high & 0xFF] ^ kTables[2][high >> 8 & 0xFF] ^
              kTables[1][high >> 16 & 0xFF] ^ kTables[0][high >> 24];
    }
    for (; size > 0; ++bytes, --size) {
        crc = (crc >> 8) ^ kTables[0][(crc ^ *bytes) & 0xFF];
    }
    return crc;
}

#if defined(__x86_64__)

// ---- carry-less multiplication
//
// V. Gopal et al., "Fast CRC Computation for Generic Polynomials Using PCLMULQDQ Instruction", Intel 2009. A run of 128
// bits that precedes others by D bits is replaced by a run with the same remainder that can be added to
// those: its halves times x^(D+32) and x^(D-32). The last 16 bytes go through the table.

// x^n modulo the polynomial, in the position that the multiplication of reflected numbers expects.
constexpr long long powerOfX(int n) {
    std::uint32_t power = 0x80000000; // x^0
    for (int i = 0; i < n; ++i) {
        power = (power >> 1) ^ ((power & 1) != 0 ? kPolynomial : 0);
    }
    const std::uint64_t reflected = std::uint64_t{power} << 1;
    return static_cast<long long>(reflected);
}
static_assert(powerOfX(512 + 32) == 0x154442bd4 && powerOfX(512 - 32) == 0x1c6e41596); // as in the paper

#define KR_CLMUL __attribute__((target("pclmul,sse4.1")))
#define KR_WIDE_CLMUL __attribute__((target("avx512f,vpclmulqdq,pclmul,sse4.1")))

template <int kDistance>
KR_CLMUL inline __m128i fold(__m128i run, __m128i onto) noexcept {
    const __m128i powers = _mm_set_epi64x(powerOfX(kDistance - 32), powerOfX(kDistance + 32));
    return _mm_xor_si128(onto, _mm_xor_si128(_mm_clmulepi64_si128(run, powers, 0x00),
                                             _mm_clmulepi64_si128(run, powers, 0x11)));
}

KR_CLMUL inline __m128i load(const unsigned char* bytes) noexcept {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
}

// The remainder of `run` followed by the rest of the bytes.
KR_CLMUL std::uint32_t finish(__m128i run, const unsigned char* bytes, std::size_t size) noexcept {
    for (; size >= 16; bytes += 16, size -= 16) {
        run = fold<128>(run, load(bytes));
    }
    std::array<unsigned char, 16> last;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(last.data()), run);
    return updateByTable(updateByTable(0, last.data(), last.size()), bytes, size);
}

KR_CLMUL std::uint32_t updateByClmul(std::uint32_t crc, const unsigned char* bytes,
                                     std::size_t size) noexcept {
    if (size < 64) {
        return updateByTable(crc, bytes, size);
    }
    __m128i a = _mm_xor_si128(load(bytes), _mm_cvtsi32_si128(static_cast<int>(crc)));
    __m128i b = load(bytes + 16), c = load(bytes + 32), d = load(bytes + 48);
    for (bytes += 64, size -= 64; size >= 64; bytes += 64, size -= 64) {
        a = fold<512>(a, load(bytes));
        b = fold<512>(b, load(bytes + 16));
        c = fold<512>(c, load(bytes + 32));
        d = fold<512>(d, load(bytes + 48));
    }
    return finish(fold<128>(fold<128>(fold<128>(a, b), c), d), bytes, size);
}

template <int kDistance>
KR_WIDE_CLMUL inline __m512i foldWide(__m512i runs, __m512i onto) noexcept {
    const long long low = powerOfX(kDistance + 32), high = powerOfX(kDistance - 32);
    const __m512i powers = _mm512_set_epi64(high, low, high, low, high, low, high, low);
    return _mm512_ternarylogic_epi64(onto, _mm512_clmulepi64_epi128(runs, powers, 0x00),
                                     _mm512_clmulepi64_epi128(runs, powers, 0x11), 0x96); // xor of three
}

KR_WIDE_CLMUL std::uint32_t updateByWideClmul(std::uint32_t crc, const unsigned char* bytes,
                                              std::size_t size) noexcept {
    if (size < 512) {
        return updateByClmul(crc, bytes, size);
    }
    __m512i a = _mm512_xor_si512(_mm512_loadu_si512(bytes),
                                 _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(crc))));
    __m512i b = _mm512_loadu_si512(bytes + 64), c = _mm512_loadu_si512(bytes + 128);
    __m512i d = _mm512_loadu_si512(bytes + 192);
    for (bytes += 256, size -= 256; size >= 256; bytes += 256, size -= 256) {
        a = foldWide<2048>(a, _mm512_loadu_si512(bytes));
        b = foldWide<2048>(b, _mm512_loadu_si512(bytes + 64));
        c = foldWide<2048>(c, _mm512_loadu_si512(bytes + 128));
        d = foldWide<2048>(d, _mm512_loadu_si512(bytes + 192));
    }
    const __m512i runs = foldWide<512>(foldWide<512>(foldWide<512>(a, b), c), d);
    std::array<unsigned char, 64> lanes; // g++ 12 warns of _mm512_extracti32x4_epi32
    _mm512_storeu_si512(lanes.data(), runs);
    __m128i run = fold<128>(load(lanes.data()), load(lanes.data() + 16));
    run = fold<128>(run, load(lanes.data() + 32));
    return finish(fold<128>(run, load(lanes.data() + 48)), bytes, size);
}

#endif

KRCrc32Path findBestPath() noexcept {
    return hasCrc32Path(KRCrc32Path::WideClmul) ? KRCrc32Path::WideClmul
           : hasCrc32Path(KRCrc32Path::Clmul)   ? KRCrc32Path::Clmul
                                                : KRCrc32Path::Table;
}

} // namespace

bool hasCrc32Path([[maybe_unused]] KRCrc32Path path) noexcept {
#if defined(__x86_64__)
    const bool hasClmul = __builtin_cpu_supports("pclmul") != 0 && __builtin_cpu_supports("sse4.1") != 0;
    switch (path) {
    case KRCrc32Path::Table:
        return true;
    case KRCrc32Path::Clmul:
        return hasClmul;
    case KRCrc32Path::WideClmul:
        return hasClmul && __builtin_cpu_supports("avx512f") != 0 &&
               __builtin_cpu_supports("vpclmulqdq") != 0;
    }
    return false;
#else
    return path == KRCrc32Path::Table;
#endif
}

std::uint32_t updateCrc32([[maybe_unused]] KRCrc32Path path, std::uint32_t crc, const void* bytes,
                          std::size_t size) noexcept {
    const auto* from = static_cast<const unsigned char*>(bytes);
#if defined(__x86_64__)
    if (path == KRCrc32Path::WideClmul) {
        return ~updateByWideClmul(~crc, from, size);
    }
    if (path == KRCrc32Path::Clmul) {
        return ~updateByClmul(~crc, from, size);
    }
#endif
    return ~updateByTable(~crc, from, size);
}

std::uint32_t updateCrc32(std::uint32_t crc, const void* bytes, std::size_t size) noexcept {
    static const KRCrc32Path path = findBestPath();
    return updateCrc32(path, crc, bytes, size);
}

} // namespace KR
