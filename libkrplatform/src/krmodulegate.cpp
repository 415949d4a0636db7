#include "krmodulegate.hpp"

#include "krmodule_p.hpp"
#include "krmodulenumber.hpp"

namespace KR {

namespace {

// The innermost call on this thread's stack. Each call knows the one around it, so nothing is allocated that
// would have to be freed when the thread ends.
thread_local const KRModuleGate::Running* innermostCall = nullptr;

// Callers in other processes also recognize these texts.
constexpr const char* kExiting = "the module is exiting";
constexpr const char* kNotReachable = "the module is not reachable yet";
std::string describeAbsence(const std::string& module) {
    return "there is no module named " + module;
}

} // namespace

KRModuleGate::KRModuleGate(std::string name, KRModule& module)
    : name_(std::move(name)), number_(drawModuleNumber()), module_(module) {}

bool KRModuleGate::open() noexcept {
    std::uint64_t state = state_.load(std::memory_order_acquire);
    while ((state & (kOpened | kClosed)) == 0) {
        if (state_.compare_exchange_weak(state, state | kOpened, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

bool KRModuleGate::close() noexcept {
    const std::uint64_t before = state_.fetch_or(kClosed, std::memory_order_acq_rel);
    return (before & kClosed) == 0;
}

bool KRModuleGate::isOpen() const noexcept {
    return (state_.load(std::memory_order_acquire) & (kOpened | kClosed)) == kOpened;
}

bool KRModuleGate::wasOpened() const noexcept {
    return (state_.load(std::memory_order_acquire) & kOpened) != 0;
}

bool KRModuleGate::isClosed() const noexcept {
    return (state_.load(std::memory_order_acquire) & kClosed) != 0;
}

void KRModuleGate::enter(std::string_view method) {
    throwUnlessEntered(enterIf(kOpened), kOpened, method);
}

void KRModuleGate::enterFromInside(std::string_view method) {
    throwUnlessEntered(enterIf(0), 0, method);
}

bool KRModuleGate::tryToEnter() noexcept {
    return isEntered(enterIf(kOpened), kOpened);
}

std::uint64_t KRModuleGate::enterIf(std::uint64_t required) noexcept {
    const std::uint64_t before = state_.fetch_add(1, std::memory_order_acq_rel);
    if (!isEntered(before, required)) {
        leave();
    }
    return before;
}

void KRModuleGate::throwUnlessEntered(std::uint64_t before, std::uint64_t required,
                                      std::string_view method) const {
    if (!isEntered(before, required)) {
        refuse(name_, method, (before & kClosed) != 0 ? KRModuleState::Closed : KRModuleState::Claimed);
    }
}

void KRModuleGate::refuse(const std::string& module, std::string_view method,
                          std::optional<KRModuleState> state) {
    throw KRError(module, std::string(method),
                  !state                            ? describeAbsence(module)
                  : *state == KRModuleState::Closed ? kExiting
                                                    : kNotReachable);
}

bool KRModuleGate::isRefusal(const KRError& error, const std::string& module) {
    const std::string& text = error.getDescription();
    return error.getModule() == module &&
           (text == kExiting || text == kNotReachable || text == describeAbsence(module));
}

void KRModuleGate::leave() noexcept {
    const std::uint64_t before = state_.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & kClosed) != 0) {
        state_.notify_all();
    }
}

void KRModuleGate::waitForCalls() const noexcept {
    const std::uint64_t own = countCallsOfThisThread();
    std::uint64_t state = state_.load(std::memory_order_acquire);
    while ((state & kCalls) > own) {
        state_.wait(state, std::memory_order_acquire);
        state = state_.load(std::memory_order_acquire);
    }
}

std::uint64_t KRModuleGate::countCallsOfThisThread() const noexcept {
    std::uint64_t count = 0;
    for (const Running* call = innermostCall; call != nullptr; call = call->around_) {
        count += &call->gate_ == this ? 1 : 0;
    }
    return count;
}

bool KRModuleGate::isThreadExiting() noexcept {
    for (const Running* call = innermostCall; call != nullptr; call = call->around_) {
        if (call->gate_.isClosed()) {
            return true;
        }
    }
    return false;
}

KRValue KRModuleGate::call(std::string_view method, std::span<const KRValue> arguments) {
    enter(method);
    return Running(*this).call(method, arguments);
}

const KRIncomingCall* KRModuleGate::getIncomingCall() const noexcept {
    for (const Running* call = innermostCall; call != nullptr; call = call->around_) {
        if (&call->gate_ == this) {
            return call->incoming_;
        }
    }
    return nullptr;
}

KRModuleGate::Running::Running(KRModuleGate& gate, const KRIncomingCall* incoming) noexcept
    : gate_(gate), incoming_(incoming), around_(innermostCall) {
    innermostCall = this;
}

KRModuleGate::Running::~Running() {
    innermostCall = around_;
    gate_.leave();
}

KRValue KRModuleGate::Running::call(std::string_view method, std::span<const KRValue> arguments) {
    return gate_.module_.p_->call(method, arguments);
}

void KRModuleGate::Running::reportCallerGone(const std::string& caller) {
    gate_.module_.xCallerGone(caller);
}

} // namespace KR
