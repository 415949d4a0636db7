#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/types.h>

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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsHeapExact = false; ///< they keep freed memory
#else
constexpr bool kIsHeapExact = true;
#endif

/// What a process takes of the machine.
struct ProcessUse {
    std::size_t descriptors = 0;
    std::size_t mappings = 0;  ///< of shared memory for binaries
    std::size_t shared_kB = 0; ///< resident in these
    std::size_t own_kB = 0;    ///< resident and not shared

    static ProcessUse of(pid_t process) {
        const std::string folder = "/proc/" + std::to_string(process);
        const MappedMemory memory = readMappedMemory(folder);
        const std::filesystem::directory_iterator open(folder + "/fd");
        return {static_cast<std::size_t>(std::distance(begin(open), end(open))), memory.mappings,
                memory.resident_kB, readAnonymousMemory(folder)};
    }
    std::string toText() const {
        return std::to_string(descriptors) + " descriptors, " + std::to_string(mappings) + " memories, " +
               std::to_string(shared_kB) + " kB shared, " + std::to_string(own_kB) + " kB of its own";
    }
};

} // namespace KR::test
