#pragma once

#include "krmodulegate.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace KR {

/// The modules of a broker by name. Thread-safe.
class KRDirectory {
public:
    /// Hears of a module that can be called from now on, or cannot any more.
    /// Runs on the thread that caused it, without a lock held, and must not block.
    using Observer = std::function<void(const std::string& module, bool reachable)>;

    /// Set it before the first module comes and clear it after the last has gone.
    void setObserver(Observer observer) { observer_ = std::move(observer); }

    /// A gate under this name, not open yet. \throws KRError the name is empty or taken
    std::shared_ptr<KRModuleGate> reserve(const std::string& name, KRModule& module);
    void open(KRModuleGate& gate);
    void close(KRModuleGate& gate);
    /// Frees the name.
    void withdraw(const KRModuleGate& gate);

    /// The gate under this name whatever its state, or null.
    std::shared_ptr<KRModuleGate> find(const std::string& name) const;
    /// Blocks until the module can be called, or until the deadline. \return whether it can be called
    bool waitFor(const std::string& name,
                 std::optional<std::chrono::steady_clock::time_point> deadline) const;
    std::vector<std::string> listOpen() const;

private:
    Observer observer_;
    mutable std::mutex mutex_;
    mutable std::condition_variable opened_;
    std::map<std::string, std::shared_ptr<KRModuleGate>> gates_; // guarded by mutex_
};

} // namespace KR
