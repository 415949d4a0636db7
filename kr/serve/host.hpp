#pragma once

#include <krplatform/krmodulehandle.hpp>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace KR::tool {

class Interruption;

/// Modules that run until the program is asked to end. They come down at the same time, and then the services that
/// they may need; a service does not wait longer than a second for that. Not thread-safe.
class Host {
public:
    /// After this long modules that do not come down are left behind: the program ends without them.
    static constexpr std::chrono::milliseconds kTimeToComeDown{1800};

    /// From then on, a reader of the log that goes away does not end the program.
    Host();
    /// Takes down what is still up.
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// A service that others may need while they come down.
    void addService(KRModuleHandle<KRModule> module) { services_.push_back(std::move(module)); }
    /// Makes a module, unless the program is interrupted before: constructors wait for what they need, such as the
    /// memory. One that goes on waiting is left behind: the program ends, with exit code 0.
    /// \param name  of what is made, to tell who was left behind
    /// \throws what `make` throws
    void add(const std::string& name, const std::function<KRModuleHandle<KRModule>()>& make,
             Interruption& interruption);

    /// Returns when the program is interrupted, or when modules had been added and all of them were asked to exit.
    void waitFor(Interruption& interruption) const;

    /// Takes all down. Ends the whole program with exit code 1, and says which modules it left behind, if that
    /// takes longer than kTimeToComeDown.
    void takeDown();

    const std::vector<KRModuleHandle<KRModule>>& getModules() const noexcept { return modules_; }

private:
    std::vector<KRModuleHandle<KRModule>> services_;
    std::vector<KRModuleHandle<KRModule>> modules_;
};

} // namespace KR::tool
