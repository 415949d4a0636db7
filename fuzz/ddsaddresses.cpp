// Addresses "dds:..." from users and programs: any text is parsed or refused with a KRError.

#include "krddsoptions.hpp"

#include <krplatform/krerror.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const std::string url = "dds:" + std::string(reinterpret_cast<const char*>(data), size);
        const KR::KRDDSOptions options = KR::KRDDSOptions::parse(url);
        KR::KRHostNetwork network;
        network.loopback = "lo";
        for (const bool place : {true, false}) {
            network.loopbackMulticast = network.alone = place;
            (void)options.getConfiguration(network, place);
        }
    } catch (const KR::KRError&) { // expected for most
    }
    return 0;
}
