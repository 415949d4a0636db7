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

/// Calls a function with each value written to the memory module of this broker and each event raised, synchronously on the
/// writing module's thread (on a call thread for modules of other processes). For tools that must know everything that a
/// module has written when it returns.
/// \param observer  replaces an earlier one, which may still be running; empty: none
/// \throws KRError the broker runs no memory module
KR_EXPORT void setMemoryObserver(KRBroker& broker, KRMemoryObserver observer);

} // namespace KR
