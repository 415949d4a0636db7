#pragma once

#include "krplatform/krmutex.hpp"
#include "krplatform/krtransport.hpp"

#include "krmodulegate.hpp"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// The modules of a broker and the known modules of other processes, by name. Thread-safe.
class KRDirectory {
public:
    /// Called when a module becomes reachable or unreachable. Runs on the thread that caused it, with no lock
    /// held, and must not block.
    using Observer = std::function<void(const std::string& module, bool reachable)>;

    /// Set it before the first module exists and clear it after the last is gone.
    void setObserver(Observer observer) { observer_ = std::move(observer); }

    /// The link to other processes that changes are announced through. Set and clear it as the observer.
    void setTransport(KRTransport* transport) { transport_ = transport; }

    /// A gate under this name, not open yet. \throws KRError the name is empty or taken, here or elsewhere
    std::shared_ptr<KRModuleGate> reserve(const std::string& name, KRModule& module);
    void open(KRModuleGate& gate);
    void close(KRModuleGate& gate);
    /// Frees the name.
    void withdraw(const KRModuleGate& gate);

    /// The gate under this name in any state, or null.
    std::shared_ptr<KRModuleGate> find(const std::string& name) const;
    /// The module of another process under this name in any state, or null.
    std::shared_ptr<KRRemoteModule> findRemote(const std::string& name) const;
    /// State of the module, here or elsewhere; nullopt if unknown.
    std::optional<KRModuleState> getState(const std::string& name) const;
    /// The same, once the module is known or the timeout is over.
    std::optional<KRModuleState> waitForState(const std::string& name,
                                              std::chrono::milliseconds timeout) const;
    bool isOpen(const std::string& name) const { return getState(name) == KRModuleState::Open; }

    void setRemote(const std::shared_ptr<KRRemoteModule>& module, KRModuleState state);
    void removeRemote(const std::shared_ptr<KRRemoteModule>& module);

    std::vector<KRLocalModule> listLocal() const;
    std::vector<std::shared_ptr<KRModuleGate>> getOpenGates() const;
    /// Blocks until the module can be called, or until the deadline. \return whether it can be called
    bool waitFor(const std::string& name,
                 std::optional<std::chrono::steady_clock::time_point> deadline) const;
    /// The same, but also returns when a module that the calling thread is inside a call of is closed.
    bool waitForUnlessExiting(const std::string& name, std::chrono::steady_clock::time_point deadline) const;
    std::vector<std::string> listOpen() const;

private:
    std::optional<KRModuleState> findState(const std::string& name) const KR_REQUIRES(mutex_);
    void announce() const noexcept;
    void notify(const std::string& module, bool reachable) const;

    Observer observer_;
    KRTransport* transport_ = nullptr;
    mutable KRMutex mutex_;
    mutable KRCondition changed_; // a module was added, became callable, or closed
    std::map<std::string, std::shared_ptr<KRModuleGate>> gates_ KR_GUARDED_BY(mutex_);
    std::map<std::string, std::shared_ptr<KRRemoteModule>> remote_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
