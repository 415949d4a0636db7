#pragma once

#include "krdescriptor.hpp"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace KR {

/// Wakes the thread of an endpoint, which rests while there is no shared memory to look after. Thread-safe.
class KRLocalWaker {
public:
    KRLocalWaker() : descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    /// Readable after wake(); invalid if there was none.
    const KRDescriptor& getDescriptor() const noexcept { return descriptor_; }
    void wake() const noexcept {
        constexpr std::uint64_t kOne = 1;
        [[maybe_unused]] const auto written = ::write(descriptor_.get(), &kOne, sizeof kOne);
    }
    void reset() const noexcept {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto got = ::read(descriptor_.get(), &count, sizeof count);
    }

private:
    const KRDescriptor descriptor_;
};

} // namespace KR
