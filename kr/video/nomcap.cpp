// In place of mcap.cpp, without libkrinterop.

#include "video/mcap.hpp"
#include "video/mcaprepair.hpp"

#include <stdexcept>

namespace KR::tool {

namespace {

[[noreturn]] void refuse() {
    throw std::runtime_error("this kr was built without MCAP (KR_INTEROP)");
}

} // namespace

bool isMcap(const std::string& /*path*/) {
    return false;
}

std::unique_ptr<FrameSink> makeMcapSink(const std::string& /*path*/, const std::string& /*compression*/) {
    refuse();
}

void copyToMcap(const KROxvFile& /*recording*/, std::uint64_t /*first*/, std::uint64_t /*count*/,
                std::optional<std::size_t> /*stream*/, const std::string& /*path*/,
                const std::string& /*compression*/, Progress& /*progress*/) {
    refuse();
}

std::function<const KRImage*()> openMcapImages(const std::string& /*path*/, const McapImages& /*images*/) {
    refuse();
}

std::vector<std::string> diagnoseMcap(const std::string& /*path*/, Progress& /*progress*/) {
    refuse();
}

McapRecovery recoverMcap(const std::string& /*in*/, const std::string& /*out*/, const std::string& /*name*/,
                         Progress& /*progress*/) {
    refuse();
}

const McapImages& chooseMcapImages(const std::string& /*path*/, const McapContent& /*content*/,
                                   std::size_t /*stream*/, std::uint64_t /*frame*/) {
    refuse();
}

McapContent readMcap(const std::string& /*path*/, Progress& /*progress*/) {
    refuse();
}

std::uint64_t copyFromMcap(const std::string& /*in*/, const McapContent& /*content*/, std::uint64_t /*first*/,
                           std::uint64_t /*count*/, std::optional<std::size_t> /*stream*/,
                           const std::string& /*path*/, const std::string& /*name*/, Progress& /*progress*/) {
    refuse();
}

} // namespace KR::tool
