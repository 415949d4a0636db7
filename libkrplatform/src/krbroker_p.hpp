#pragma once

#include "krplatform/krbroker.hpp"
#include "krplatform/krclock.hpp"
#include "krplatform/krmodulehandle.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krtransport.hpp"

#include "krcallthreads.hpp"
#include "krdirectory.hpp"
#include "krmemory.hpp"
#include "krmemoryledger.hpp"
#include "krmodulefollowers.hpp"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace KR {

/// The parts of a broker, for the rest of the platform.
class KRBrokerPrivate {
public:
    static KRBrokerPrivate& of(KRBroker& broker) { return *broker.p_; }

    /// Enters the gate and runs the job on a call thread, which leaves the gate afterwards. Exceptions of the job are
    /// logged. \param fromInside  the module itself calls
    /// \throws KRError the gate refuses the call; the job could not be posted
    void postCall(std::shared_ptr<KRModuleGate> gate, std::string method,
                  std::function<void(KRModuleGate::Running&)> job, bool fromInside = false);

    /// The same for a call of a module of another process.
    void postRemote(std::shared_ptr<KRRemoteModule> module, std::string method,
                    std::vector<KRValue> arguments);
    /// Runs the job, which must not throw, on a call thread. \throws KRError it could not be posted, named after the method
    void post(const std::string& module, const std::string& method, std::function<void()> job);

    /// [name, value] pairs for the module of this name.
    std::vector<KRValue> getInitialParameters(const std::string& module) KR_EXCLUDES(parametersMutex);

    /// A module became reachable or unreachable.
    void noticeModule(const std::string& module, bool reachable) noexcept;

    KRMutex parametersMutex;
    std::map<std::string, std::vector<KRValue>> initialParameters KR_GUARDED_BY(parametersMutex); // by module
    KRModuleFollowers followers;
    std::unique_ptr<KRClock> clock = std::make_unique<KRMachineClock>(); // constant once the broker is made
    KRDirectory directory;
    KRTransportHost host{*this};
    std::unique_ptr<KRTransport>
        transport; // null in a broker without other processes; outlives the call threads
    std::unique_ptr<KRMemoryLedger> ledger; // outlives the call threads
    KRCallThreads threads;
    KRSession session{*this};
    KRModuleHandle<KRMemory> memory;                 // empty in a broker without one
    std::atomic<KRMemory*> noticingMemory = nullptr; // the same, for the thread of the transport
};

} // namespace KR
