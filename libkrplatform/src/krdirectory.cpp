#include "krdirectory.hpp"

namespace KR {

std::shared_ptr<KRModuleGate> KRDirectory::reserve(const std::string& name, KRModule& module) {
    if (name.empty()) {
        throw KRError("KRBroker", "registerModule", "a module needs a name");
    }
    auto gate = std::make_shared<KRModuleGate>(name, module);
    const std::lock_guard lock(mutex_);
    if (!gates_.emplace(name, gate).second) {
        throw KRError("KRBroker", "registerModule", "there is a module named " + name + " already");
    }
    return gate;
}

void KRDirectory::open(KRModuleGate& gate) {
    {
        const std::lock_guard lock(mutex_);
        if (!gate.open()) {
            return;
        }
        opened_.notify_all();
    }
    if (observer_) {
        observer_(gate.getName(), true);
    }
}

void KRDirectory::close(KRModuleGate& gate) {
    if (gate.close() && observer_) {
        observer_(gate.getName(), false);
    }
}

void KRDirectory::withdraw(const KRModuleGate& gate) {
    const std::lock_guard lock(mutex_);
    gates_.erase(gate.getName());
}

std::shared_ptr<KRModuleGate> KRDirectory::find(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found = gates_.find(name);
    return found == gates_.end() ? nullptr : found->second;
}

bool KRDirectory::waitFor(const std::string& name,
                          std::optional<std::chrono::steady_clock::time_point> deadline) const {
    const auto isOpen = [&] {
        const auto found = gates_.find(name);
        return found != gates_.end() && found->second->isOpen();
    };
    std::unique_lock lock(mutex_);
    if (deadline) {
        return opened_.wait_until(lock, *deadline, isOpen);
    }
    opened_.wait(lock, isOpen);
    return true;
}

std::vector<std::string> KRDirectory::listOpen() const {
    std::vector<std::string> names;
    const std::lock_guard lock(mutex_);
    for (const auto& [name, gate] : gates_) {
        if (gate->isOpen()) {
            names.push_back(name);
        }
    }
    return names;
}

} // namespace KR
