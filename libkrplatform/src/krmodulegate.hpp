#pragma once

#include "krplatform/krvalue.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace KR {

class KRModule;

/// What stands between a module and its callers: counts the calls that run and refuses new ones when the module
/// goes. Callers share the gate, nobody shares the module. Thread-safe.
class KRModuleGate {
public:
    KRModuleGate(std::string name, KRModule& module);

    const std::string& getName() const noexcept { return name_; }
    /// No other module that this process knows or knew of has it.
    std::uint32_t getNumber() const noexcept { return number_; }

    /// Lets callers in, unless the gate is closed. \return whether this call did it
    bool open() noexcept;
    /// Lets nobody in any more. \return whether this call did it
    bool close() noexcept;
    bool isOpen() const noexcept;
    /// Callers were let in at some time; those may still be inside though the gate is closed.
    bool wasOpened() const noexcept;
    bool isClosed() const noexcept;

    /// Counts a call that is about to run, or throws: \throws KRError nobody is let in, named after `method`
    void enter(std::string_view method);
    /// The same for a call of the module itself, which may also come before the gate is open.
    void enterFromInside(std::string_view method);
    void leave() noexcept;

    /// Enters, calls the method on this thread, leaves.
    KRValue call(std::string_view method, std::span<const KRValue> arguments);

    /// The calling thread is inside a call of this module.
    bool isInsideCall() const noexcept { return countCallsOfThisThread() > 0; }
    /// The process whose call of this module runs on this thread; empty for this process itself.
    std::string getCaller() const;
    /// Blocks until no thread but the calling one is inside a call.
    void waitForCalls() const noexcept;

    /// For as long as it stands, a call that was counted runs on this thread; leaves at its end.
    class Running {
    public:
        /// \param caller  the process that calls, if it is another one; outlives the call
        explicit Running(KRModuleGate& gate, const std::string* caller = nullptr) noexcept;
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        KRValue call(std::string_view method, std::span<const KRValue> arguments);
        void tellCallerGone(const std::string& caller);

    private:
        friend KRModuleGate;
        KRModuleGate& gate_;
        const std::string* const caller_;
        const Running* const around_; // the call that this one was made from, on this thread
    };

private:
    std::uint64_t countCallsOfThisThread() const noexcept;
    void enterIf(std::uint64_t required, std::string_view method);

    static constexpr std::uint64_t kClosed = std::uint64_t{1} << 63;
    static constexpr std::uint64_t kOpened = std::uint64_t{1} << 62;
    static constexpr std::uint64_t kCalls = kOpened - 1;

    const std::string name_;
    const std::uint32_t number_;
    KRModule& module_;                     // touched only by calls that were let in
    std::atomic<std::uint64_t> state_ = 0; // the two flags and the number of calls inside
};

} // namespace KR
