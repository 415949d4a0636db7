#include "krmodulegate.hpp"

#include "krmodule_p.hpp"
#include "krmodulenumber.hpp"

namespace KR {

namespace {

// The innermost call on this thread's stack. Each call knows the one around it, so nothing is allocated that
// would have to be freed when the thread ends.
thread_local const KRModuleGate::Running* innermostCall = nullptr;

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
    enterIf(kOpened, method);
}

void KRModuleGate::enterFromInside(std::string_view method) {
    enterIf(0, method);
}

void KRModuleGate::enterIf(std::uint64_t required, std::string_view method) {
    const std::uint64_t before = state_.fetch_add(1, std::memory_order_acq_rel);
    if ((before & kClosed) == 0 && (before & required) == required) {
        return;
    }
    leave();
    throw KRError(name_, std::string(method),
                  (before & kClosed) != 0 ? "the module is exiting" : "the module is not reachable yet");
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

KRValue KRModuleGate::call(std::string_view method, std::span<const KRValue> arguments) {
    enter(method);
    return Running(*this).call(method, arguments);
}

std::string KRModuleGate::getCaller() const {
    for (const Running* call = innermostCall; call != nullptr; call = call->around_) {
        if (&call->gate_ == this) {
            return call->caller_ != nullptr ? *call->caller_ : std::string();
        }
    }
    return {};
}

KRModuleGate::Running::Running(KRModuleGate& gate, const std::string* caller) noexcept
    : gate_(gate), caller_(caller), around_(innermostCall) {
    innermostCall = this;
}

KRModuleGate::Running::~Running() {
    innermostCall = around_;
    gate_.leave();
}

KRValue KRModuleGate::Running::call(std::string_view method, std::span<const KRValue> arguments) {
    return gate_.module_.p_->call(method, arguments);
}

void KRModuleGate::Running::tellCallerGone(const std::string& caller) {
    gate_.module_.xCallerGone(caller);
}

} // namespace KR
