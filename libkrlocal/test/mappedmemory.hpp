#pragma once

#include <cstddef>
#include <fstream>
#include <string>

namespace KR::test {

/// Shared memory for binaries mapped by a process, its own and that of others.
struct MappedMemory {
    std::size_t mappings = 0;
    std::size_t resident_kB = 0;
};

/// \param process  folder of the process in /proc
inline MappedMemory readMappedMemory(const std::string& process = "/proc/self") {
    MappedMemory memory;
    std::ifstream maps(process + "/smaps");
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

/// Resident memory of a process that belongs to no file and is not shared, in kB.
inline std::size_t readAnonymousMemory(const std::string& process) {
    std::ifstream rollup(process + "/smaps_rollup");
    for (std::string line; std::getline(rollup, line);) {
        if (line.rfind("Anonymous:", 0) == 0) {
            return std::stoul(line.substr(10));
        }
    }
    return 0;
}

} // namespace KR::test
