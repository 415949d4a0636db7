#pragma once

#include "krplatform/krbroker.hpp"
#include "krplatform/krmodulehandle.hpp"

#include "krcallthreads.hpp"
#include "krdirectory.hpp"
#include "krmemory.hpp"

#include <functional>
#include <memory>
#include <string>

namespace KR {

/// What a broker is made of, for the rest of the platform.
class KRBrokerPrivate {
public:
    static KRBrokerPrivate& of(KRBroker& broker) { return *broker.p_; }

    /// Runs the job on a call thread as a call that has entered the gate; it leaves the gate at its end.
    /// What the job throws is logged. \throws KRError no thread could be started; the gate has been left
    void postEntered(std::shared_ptr<KRModuleGate> gate, std::string method,
                     std::function<void(KRModuleGate::Running&)> job);

    KRDirectory directory;
    KRCallThreads threads;
    KRSession session{*this};
    KRModuleHandle<KRMemory> memory; // empty in a broker without one
};

} // namespace KR
