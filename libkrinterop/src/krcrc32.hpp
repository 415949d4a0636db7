#pragma once

#include <cstddef>
#include <cstdint>

namespace KR {

/// The CRC-32 of Ethernet, zip and MCAP (polynomial 0x04C11DB7, reflected, inverted before and after) of bytes that
/// follow those whose CRC is `crc`; 0 to begin with. Runs on carry-less multiplication where the processor has it.
/// Thread-safe.
std::uint32_t updateCrc32(std::uint32_t crc, const void* bytes, std::size_t size) noexcept;

/// Ways to compute it, from the plainest one; a processor has a way and all before it, or not at all.
enum class KRCrc32Path { Table, Clmul, WideClmul };
bool hasCrc32Path(KRCrc32Path path) noexcept;
/// The same by one of them, for tests. The processor must have it.
std::uint32_t updateCrc32(KRCrc32Path path, std::uint32_t crc, const void* bytes, std::size_t size) noexcept;

} // namespace KR
