#pragma once

#include <krplatform/krvalue.hpp>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

namespace KR::test {

/// Whether the bytes lie in shared memory of brokers, of this process or another one.
inline bool isInSharedMemory(const KRBinary& binary) {
    const auto address = reinterpret_cast<std::uintptr_t>(binary.data());
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0;
        unsigned long end = 0;
        if (line.find("memfd:krvision") != std::string::npos &&
            std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) == 2 && address >= begin && address < end) {
            return true;
        }
    }
    return false;
}

} // namespace KR::test
