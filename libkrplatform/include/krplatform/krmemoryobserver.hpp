#pragma once

#include "krplatform/krexport.hpp"

#include <functional>
#include <string>

namespace KR {

class KRBroker;
class KRValue;

/// One write to the memory module. Valid during the call of the observer.
struct KRMemoryWrite {
    bool isEvent;            ///< raised, not just written
    const std::string& name; ///< key, or name of the event
    const KRValue& value;    ///< what was written
};
/// Must not throw.
using KRMemoryObserver = std::function<void(const KRMemoryWrite&)>;

/// Has a function called with each value that is written to the memory module of this broker and each event that is raised,
/// on the thread of the module that does so (on a call thread for modules of other processes), before it goes on: for
/// tools that must know what a module had written by the time that it returned.
/// \param observer  replaces an earlier one, which may still be running; empty: none
/// \throws KRError the broker runs no memory module
KR_EXPORT void setMemoryObserver(KRBroker& broker, KRMemoryObserver observer);

} // namespace KR
