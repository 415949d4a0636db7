#include "krdirectory.hpp"

#include <set>

namespace KR {

namespace {

KRModuleState getStateOf(const KRModuleGate& gate) noexcept {
    return gate.isClosed() ? KRModuleState::Closed
           : gate.isOpen() ? KRModuleState::Open
                           : KRModuleState::Claimed;
}

} // namespace

void KRDirectory::announce() const noexcept {
    if (transport_ != nullptr) {
        transport_->announceModules();
    }
}

void KRDirectory::notify(const std::string& module, bool reachable) const {
    if (observer_) {
        observer_(module, reachable);
    }
}

std::shared_ptr<KRModuleGate> KRDirectory::reserve(const std::string& name, KRModule& module) {
    if (name.empty()) {
        throw KRError("KRBroker", "registerModule", "a module needs a name");
    }
    auto gate = std::make_shared<KRModuleGate>(name, module);
    {
        const KRLock lock(mutex_);
        const auto remote = remote_.find(name);
        if (remote != remote_.end()) {
            throw KRError("KRBroker", "registerModule",
                          "there is a module named " + name + " already, " + remote->second->getLocation());
        }
        if (!gates_.emplace(name, gate).second) {
            throw KRError("KRBroker", "registerModule", "there is a module named " + name + " already");
        }
        changed_.notifyAll();
    }
    if (transport_ != nullptr) {
        try {
            transport_->claim(name);
        } catch (...) {
            withdraw(*gate);
            throw;
        }
    }
    return gate;
}

void KRDirectory::open(KRModuleGate& gate) {
    {
        const KRLock lock(mutex_);
        if (!gate.open()) {
            return;
        }
        changed_.notifyAll();
    }
    announce();
    notify(gate.getName(), true);
}

void KRDirectory::close(KRModuleGate& gate) {
    if (gate.close()) {
        {
            const KRLock lock(mutex_);
            changed_.notifyAll();
        }
        announce();
        notify(gate.getName(), false);
    }
}

void KRDirectory::withdraw(const KRModuleGate& gate) {
    {
        const KRLock lock(mutex_);
        gates_.erase(gate.getName());
    }
    announce();
}

std::shared_ptr<KRModuleGate> KRDirectory::find(const std::string& name) const {
    const KRLock lock(mutex_);
    const auto found = gates_.find(name);
    return found == gates_.end() ? nullptr : found->second;
}

std::shared_ptr<KRRemoteModule> KRDirectory::findRemote(const std::string& name) const {
    const KRLock lock(mutex_);
    const auto found = remote_.find(name);
    return found == remote_.end() ? nullptr : found->second;
}

std::optional<KRModuleState> KRDirectory::findState(const std::string& name) const {
    const auto gate = gates_.find(name);
    if (gate != gates_.end()) {
        return getStateOf(*gate->second);
    }
    const auto remote = remote_.find(name);
    return remote != remote_.end() ? std::optional(remote->second->getState()) : std::nullopt;
}

std::optional<KRModuleState> KRDirectory::getState(const std::string& name) const {
    const KRLock lock(mutex_);
    return findState(name);
}

std::optional<KRModuleState> KRDirectory::waitForState(const std::string& name,
                                                       std::chrono::milliseconds timeout) const {
    KRLock lock(mutex_);
    changed_.waitFor(lock, timeout, [&] {
        mutex_.assertHeld();
        return findState(name).has_value();
    });
    return findState(name);
}

void KRDirectory::setRemote(const std::shared_ptr<KRRemoteModule>& module, KRModuleState state) {
    const std::string& name = module->getName();
    bool wentBefore = false;
    bool wasOpen = false;
    {
        const KRLock lock(mutex_);
        std::shared_ptr<KRRemoteModule>& entry = remote_[name];
        wentBefore = entry && entry != module;
        if (wentBefore) {
            entry->state_ = KRModuleState::Closed;
        }
        wasOpen = entry == module && module->getState() == KRModuleState::Open;
        entry = module;
        module->state_ = state;
        changed_.notifyAll();
    }
    if (wentBefore || (wasOpen && state != KRModuleState::Open) || state == KRModuleState::Closed) {
        notify(name, false);
    }
    if (!wasOpen && state == KRModuleState::Open) {
        notify(name, true);
    }
}

void KRDirectory::removeRemote(const std::shared_ptr<KRRemoteModule>& module) {
    const std::string& name = module->getName();
    {
        const KRLock lock(mutex_);
        module->state_ = KRModuleState::Closed;
        const auto found = remote_.find(name);
        if (found == remote_.end() || found->second != module) {
            return;
        }
        remote_.erase(found);
    }
    notify(name, false);
}

std::vector<KRLocalModule> KRDirectory::listLocal() const {
    std::vector<KRLocalModule> list;
    const KRLock lock(mutex_);
    for (const auto& [name, gate] : gates_) {
        list.push_back({name, gate->getNumber(), getStateOf(*gate)});
    }
    return list;
}

std::vector<std::shared_ptr<KRModuleGate>> KRDirectory::getOpenGates() const {
    std::vector<std::shared_ptr<KRModuleGate>> open;
    const KRLock lock(mutex_);
    for (const auto& [name, gate] : gates_) {
        if (gate->isOpen()) {
            open.push_back(gate);
        }
    }
    return open;
}

bool KRDirectory::waitFor(const std::string& name,
                          std::optional<std::chrono::steady_clock::time_point> deadline) const {
    const auto isOpenNow = [&] {
        mutex_.assertHeld();
        return findState(name) == KRModuleState::Open;
    };
    KRLock lock(mutex_);
    if (deadline) {
        return changed_.waitUntil(lock, *deadline, isOpenNow);
    }
    changed_.wait(lock, isOpenNow);
    return true;
}

bool KRDirectory::waitForUnlessExiting(const std::string& name,
                                       std::chrono::steady_clock::time_point deadline) const {
    KRLock lock(mutex_);
    changed_.waitUntil(lock, deadline, [&] {
        mutex_.assertHeld();
        return findState(name) == KRModuleState::Open || KRModuleGate::isThreadExiting();
    });
    return findState(name) == KRModuleState::Open;
}

std::vector<std::string> KRDirectory::listOpen() const {
    std::set<std::string> names;
    const KRLock lock(mutex_);
    for (const auto& [name, gate] : gates_) {
        if (gate->isOpen()) {
            names.insert(name);
        }
    }
    for (const auto& [name, module] : remote_) {
        if (module->getState() == KRModuleState::Open) {
            names.insert(name);
        }
    }
    return {names.begin(), names.end()};
}

} // namespace KR
