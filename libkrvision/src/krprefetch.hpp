#pragma once

namespace KR {

/// Asks for the cache line that comes 2 kB after `output`, which is about to be written to. It may lie past the
/// end: nothing is touched.
[[gnu::always_inline]] inline void prefetchForWriting(const unsigned char* output) {
    constexpr int kAhead = 2048; // bytes
#if defined(__x86_64__)
    asm volatile("prefetchw %0" : : "m"(*(output + kAhead)));
#else
    __builtin_prefetch(output + kAhead, 1);
#endif
}

} // namespace KR
