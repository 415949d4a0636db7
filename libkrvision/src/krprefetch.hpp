#pragma once

namespace KR {

/// Prefetches, for writing, the cache line 2 kB after `output`. It may lie past the end: nothing is accessed.
[[gnu::always_inline]] inline void prefetchForWriting(const unsigned char* output) {
    constexpr int kAhead = 2048; // bytes
#if defined(__x86_64__)
    asm volatile("prefetchw %0" : : "m"(*(output + kAhead)));
#else
    __builtin_prefetch(output + kAhead, 1);
#endif
}

} // namespace KR
