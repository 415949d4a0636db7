#pragma once

#include <cstddef>
#include <fstream>
#include <string>

namespace KR::test {

/// Shared memory for binaries mapped by this process, its own and that of others.
struct MappedMemory {
    std::size_t mappings = 0;
    std::size_t resident_kB = 0;
};

inline MappedMemory readMappedMemory() {
    MappedMemory memory;
    std::ifstream maps("/proc/self/smaps");
    bool ours = false;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("memfd:krvision") != std::string::npos) {
            ours = true;
            ++memory.mappings;
        } else if (line.find("-") != std::string::npos && line.find(":") == std::string::npos) {
            ours = false;
        } else if (line.rfind("VmFlags:", 0) == 0) {
            ours = false;
        } else if (ours && line.rfind("Rss:", 0) == 0) {
            memory.resident_kB += std::stoul(line.substr(4));
        }
    }
    return memory;
}

} // namespace KR::test
