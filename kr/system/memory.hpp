#pragma once

#include "system/domain.hpp"

#include <krplatform/krmemoryproxy.hpp>

namespace KR::tool {

/// Waits for the memory module of the domain. \throws std::runtime_error there is none
inline KRMemoryProxy findMemory(const boost::shared_ptr<KRBroker>& broker) {
    waitForModule(*broker, "KRMemory");
    return KRMemoryProxy(broker);
}

} // namespace KR::tool
