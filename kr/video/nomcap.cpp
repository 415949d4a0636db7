// In place of mcap.cpp, without libkrinterop.

#include "video/mcap.hpp"

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

McapContent readMcap(const std::string& /*path*/, Progress& /*progress*/) {
    refuse();
}

std::uint64_t copyFromMcap(const std::string& /*in*/, const McapContent& /*content*/, std::uint64_t /*first*/,
                           std::uint64_t /*count*/, std::optional<std::size_t> /*stream*/,
                           const std::string& /*path*/, const std::string& /*name*/, Progress& /*progress*/) {
    refuse();
}

} // namespace KR::tool
