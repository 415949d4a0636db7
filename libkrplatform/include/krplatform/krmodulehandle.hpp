#pragma once

#include "krplatform/krmodule.hpp"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <concepts>
#include <memory>
#include <string>
#include <utility>

namespace KR {

/// Owns a module. Its destructor shuts the module down in order: new calls are refused, detection is stopped while the
/// derived class still exists, running calls finish, then the module is destroyed.
template <class Module>
class KRModuleHandle {
public:
    KRModuleHandle() = default;
    /// Takes over a module.
    explicit KRModuleHandle(std::unique_ptr<Module> module) noexcept : module_(std::move(module)) {}
    /// Takes over the other handle's module.
    KRModuleHandle(KRModuleHandle&&) noexcept = default;
    /// Shuts its own module down, and takes over the other handle's.
    KRModuleHandle& operator=(KRModuleHandle&& other) noexcept {
        if (this != &other) {
            reset();
            module_ = std::move(other.module_);
        }
        return *this;
    }
    /// Takes over a module of a derived class.
    template <std::derived_from<Module> Derived>
    KRModuleHandle(KRModuleHandle<Derived>&& other) noexcept : module_(other.release()) {} // NOLINT
    ~KRModuleHandle() { reset(); }

    Module* get() const noexcept { return module_.get(); }        ///< the module; null if there is none
    Module* operator->() const noexcept { return module_.get(); } ///< the module
    Module& operator*() const noexcept { return *module_; }       ///< the module
    explicit operator bool() const noexcept { return module_ != nullptr; } ///< whether there is a module

    /// Shuts the module down and destroys it, as the destructor does.
    void reset() noexcept {
        if (module_) {
            shutDownAndDestroy(std::move(module_));
        }
    }
    /// Releases the module; the caller shuts it down.
    std::unique_ptr<Module> release() noexcept { return std::move(module_); }

private:
    std::unique_ptr<Module> module_;
};

/// Creates a module and makes it reachable once its constructor has finished.
/// \throws KRError the name is empty or taken. Passes on exceptions of the constructor
template <class Module, class... Arguments>
[[nodiscard]] KRModuleHandle<Module> createModule(const boost::shared_ptr<KRBroker>& broker,
                                                  const std::string& name, Arguments&&... arguments) {
    KRModuleHandle<Module> handle(
        std::make_unique<Module>(broker, name, std::forward<Arguments>(arguments)...));
    handle->makeReachable();
    return handle;
}

} // namespace KR
