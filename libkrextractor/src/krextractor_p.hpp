#pragma once

#include "krextractor/krextractor.hpp"

#include "krplatform/krmemoryproxy.hpp"
#include "krplatform/krsharedmutex.hpp"

#include <map>
#include <string>
#include <vector>

namespace KR {

struct KRExtractorPrivate {
    /// Waits for the memory module, without a time limit.
    KRExtractorPrivate(const boost::shared_ptr<KRBroker>& broker, const std::string& moduleName);

    const std::string name;

    KRSharedMutex stateMutex; // taken after subscribeMutex_, never while a hook runs
    std::map<std::string, KRExtractorParameters> subscribers KR_GUARDED_BY(stateMutex);
    int currentPeriod KR_GUARDED_BY(stateMutex) = -1;
    float currentPrecision KR_GUARDED_BY(stateMutex) = -1.0F;

    boost::shared_ptr<KRMemoryProxy> memoryProxy; // constant after construction

    // Not locked: the derived constructor fills them.
    std::vector<std::string> eventList;
    std::vector<std::string> memoryKeyList;
};

} // namespace KR
