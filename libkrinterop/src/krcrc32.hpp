#pragma once

#include <cstddef>
#include <cstdint>

namespace KR {

/// Updates a CRC-32 as in Ethernet, zip and MCAP (polynomial 0x04C11DB7, reflected, inverted before and
/// after) with the bytes that follow; it begins with 0. Uses carry-less multiplication if the processor has
/// it. Thread-safe.
std::uint32_t updateCrc32(std::uint32_t crc, const void* bytes, std::size_t size) noexcept;

/// Implementations, the simplest first; a processor that has one has all before it.
enum class KRCrc32Path { Table, Clmul, WideClmul };
bool hasCrc32Path(KRCrc32Path path) noexcept;
/// The same with one implementation, for tests. The processor must have it.
std::uint32_t updateCrc32(KRCrc32Path path, std::uint32_t crc, const void* bytes, std::size_t size) noexcept;

} // namespace KR
