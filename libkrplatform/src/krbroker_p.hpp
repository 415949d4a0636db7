#pragma once

#include "krplatform/krbroker.hpp"
#include "krplatform/krmodulehandle.hpp"
#include "krplatform/krtransport.hpp"

#include "krcallthreads.hpp"
#include "krdirectory.hpp"
#include "krmemory.hpp"
#include "krmemoryledger.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KR {

/// What a broker is made of, for the rest of the platform.
class KRBrokerPrivate {
public:
    static KRBrokerPrivate& of(KRBroker& broker) { return *broker.p_; }

    /// Runs the job on a call thread as a call that has entered the gate; it leaves the gate at its end.
    /// What the job throws is logged. \throws KRError no thread could be started; the gate has been left
    void postEntered(std::shared_ptr<KRModuleGate> gate, std::string method,
                     std::function<void(KRModuleGate::Running&)> job);

    /// The same for a call of a module of another process.
    void postRemote(std::shared_ptr<KRRemoteModule> module, std::string method,
                    std::vector<KRValue> arguments);

    /// A module can be called from now on, or cannot any more.
    void noticeModule(const std::string& module, bool reachable);

    KRDirectory directory;
    KRTransportHost host{*this};
    std::unique_ptr<KRTransport> transport; // null in a broker that is alone; goes after the call threads
    std::unique_ptr<KRMemoryLedger> ledger; // null in a broker that is alone
    KRCallThreads threads;
    KRSession session{*this};
    KRModuleHandle<KRMemory> memory; // empty in a broker without one
    std::atomic<KRMemory*> noticingMemory =
        nullptr; // the same once it is up, for the thread of the transport
};

} // namespace KR
