#pragma once

#include "domain.hpp"

#include <krplatform/krmemoryproxy.hpp>

namespace KR::tool {

/// The memory module of the domain, once it is there. \throws KRError there is none
inline KRMemoryProxy findMemory(const boost::shared_ptr<KRBroker>& broker) {
    waitForModule(*broker, "KRMemory");
    return KRMemoryProxy(broker);
}

} // namespace KR::tool
