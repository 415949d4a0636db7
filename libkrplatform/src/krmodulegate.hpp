#pragma once

#include "krplatform/krtransport.hpp"
#include "krplatform/krvalue.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace KR {

class KRModule;

/// Stands between a module and its callers: counts running calls, and refuses new ones when the module exits.
/// Callers share the gate, nobody shares the module. Thread-safe.
class KRModuleGate {
public:
    KRModuleGate(std::string name, KRModule& module);

    const std::string& getName() const noexcept { return name_; }
    /// Unique among all modules that this process has ever known.
    std::uint32_t getNumber() const noexcept { return number_; }

    /// Opens the gate, unless it is closed. \return whether this call did it
    bool open() noexcept;
    /// Closes the gate. \return whether this call did it
    bool close() noexcept;
    bool isOpen() const noexcept;
    /// Whether the gate has been open: callers may still be inside although it is closed.
    bool wasOpened() const noexcept;
    bool isClosed() const noexcept;

    /// Counts a call that is about to run. \throws KRError the gate is not open
    void enter(std::string_view method);
    /// The same for a call that the module itself makes, perhaps before the gate is open.
    void enterFromInside(std::string_view method);
    /// The same without an exception. \return whether the call may run
    bool tryToEnter() noexcept;
    void leave() noexcept;
    /// Throws the error of enter() for a module without a gate here. \param state  nullopt: there is no such module
    [[noreturn]] static void refuse(const std::string& module, std::string_view method,
                                    std::optional<KRModuleState> state);

    /// Enters, calls the method on this thread, leaves.
    KRValue call(std::string_view method, std::span<const KRValue> arguments);

    /// Whether the calling thread is inside a call of this module.
    bool isInsideCall() const noexcept { return countCallsOfThisThread() > 0; }
    /// The call of another process that runs in this module on this thread; null for one of this process.
    const KRIncomingCall* getIncomingCall() const noexcept;
    /// Whether the error is a refusal by the gate of the module of this name, in any process.
    static bool isRefusal(const KRError& error, const std::string& module);
    /// Whether the calling thread is inside a call of a closed module.
    static bool isThreadExiting() noexcept;
    /// Blocks until no thread but the calling one is inside a call.
    void waitForCalls() const noexcept;

    /// While this exists, a call that was counted runs on this thread; its destructor leaves the gate.
    class Running {
    public:
        /// \param incoming  the call, if another process makes it; outlives this
        explicit Running(KRModuleGate& gate, const KRIncomingCall* incoming = nullptr) noexcept;
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        KRValue call(std::string_view method, std::span<const KRValue> arguments);
        void reportCallerGone(const std::string& caller);

    private:
        friend KRModuleGate;
        KRModuleGate& gate_;
        const KRIncomingCall* const incoming_;
        const Running* const around_; // the call that this one was made from, on this thread
    };

private:
    std::uint64_t countCallsOfThisThread() const noexcept;
    /// Enters if the gate is not closed and has the flags. \return its state before
    std::uint64_t enterIf(std::uint64_t required) noexcept;
    static bool isEntered(std::uint64_t before, std::uint64_t required) noexcept {
        return (before & kClosed) == 0 && (before & required) == required;
    }
    void throwUnlessEntered(std::uint64_t before, std::uint64_t required, std::string_view method) const;

    static constexpr std::uint64_t kClosed = std::uint64_t{1} << 63;
    static constexpr std::uint64_t kOpened = std::uint64_t{1} << 62;
    static constexpr std::uint64_t kCalls = kOpened - 1;

    const std::string name_;
    const std::uint32_t number_;
    KRModule& module_;                     // touched only by calls that were let in
    std::atomic<std::uint64_t> state_ = 0; // the two flags and the number of calls inside
};

} // namespace KR
