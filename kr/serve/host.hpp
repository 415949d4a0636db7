#pragma once

#include "tool/command.hpp"

#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krsubscription.hpp>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace KR::tool {

class Interruption;

/// Runs modules until the program is interrupted. All modules and subscriptions are shut down in parallel, then the
/// services that they may need, which wait for them for at most a second. Thread-bound.
class Host {
public:
    /// Time for modules to shut down; after that the program ends without them.
    static constexpr std::chrono::milliseconds kTimeToComeDown{1800};

    /// Ignores SIGPIPE from now on: a reader of the log may go away.
    Host();
    /// Shuts down what is still running.
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Adds a service that others may need while they shut down.
    void addService(KRModuleHandle<KRModule> module) { services_.push_back(std::move(module)); }
    /// Adds an existing module.
    void addModule(KRModuleHandle<KRModule> module) { modules_.push_back(std::move(module)); }
    /// Makes a module. Its constructor may wait, for the memory for instance; an interruption meanwhile ends the
    /// program with exit code 0.
    /// \param name  of the module, for messages \throws what `make` throws
    void add(const std::string& name, const std::function<KRModuleHandle<KRModule>()>& make,
             Interruption& interruption);

    /// Keeps a subscription, to a module here or elsewhere.
    void addSubscription(KRSubscription subscription) { subscriptions_.push_back(std::move(subscription)); }

    /// Waits until the program is interrupted, or until all modules, if there are any, have failed or exited by
    /// themselves. Reports each of these.
    /// \return Failed if one did, even if others worked on
    ExitCode waitFor(Interruption& interruption) const;

    /// Shuts everything down. If that takes longer than kTimeToComeDown, prints the names of the remaining modules
    /// and ends the program with exit code 1.
    void takeDown();

    const std::vector<KRModuleHandle<KRModule>>& getModules() const noexcept { return modules_; }

private:
    std::vector<KRModuleHandle<KRModule>> services_;
    std::vector<KRModuleHandle<KRModule>> modules_;
    std::vector<KRSubscription> subscriptions_;
};

} // namespace KR::tool
