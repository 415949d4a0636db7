#pragma once

#include "krextractor/krextractor.hpp"

#include "krplatform/krmemoryproxy.hpp"

#include <map>
#include <shared_mutex>
#include <string>
#include <vector>

namespace KR {

struct KRExtractorPrivate {
    /// Waits for the memory module, without a time limit.
    KRExtractorPrivate(const boost::shared_ptr<KRBroker>& broker, const std::string& moduleName);

    const std::string name;

    std::shared_mutex stateMutex; // taken after subscribeMutex_, never while a hook runs
    // Guarded by stateMutex.
    std::map<std::string, KRExtractorParameters> subscribers;
    int currentPeriod = -1;
    float currentPrecision = -1.0F;

    boost::shared_ptr<KRMemoryProxy> memoryProxy; // constant after construction

    // For one thread at a time: the derived constructor fills them.
    std::vector<std::string> eventList;
    std::vector<std::string> memoryKeyList;
};

} // namespace KR
