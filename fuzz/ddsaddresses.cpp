// Addresses "dds:..." as users and programs give them: whatever the text, they are understood or refused with a KRError.

#include "krddsoptions.hpp"

#include <krplatform/krerror.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const std::string url = "dds:" + std::string(reinterpret_cast<const char*>(data), size);
        (void)KR::KRDDSOptions::parse(url).getConfiguration();
    } catch (const KR::KRError&) { // as must happen to most
    }
    return 0;
}
