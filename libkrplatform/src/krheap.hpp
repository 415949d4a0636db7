#pragma once

#include <cstddef>

namespace KR {

/// Returns freed memory to the system; the allocator keeps it otherwise. Takes milliseconds per gigabyte.
void returnFreedMemory() noexcept;

/// Decides when to call returnFreedMemory(): after the bytes held have dropped by 32 MiB. Reentrant.
class KRHeapGauge {
public:
    void add(std::size_t bytes) noexcept {
        held_ += bytes;
        peak_ = held_ > peak_ ? held_ : peak_;
    }
    void remove(std::size_t bytes) noexcept { held_ -= bytes; }
    std::size_t getHeld() const noexcept { return held_; }
    /// \return whether it is time to return memory; the caller does it
    bool takeReturn() noexcept {
        if (peak_ - held_ < kWorthwhile) {
            return false;
        }
        peak_ = held_;
        return true;
    }

private:
    static constexpr std::size_t kWorthwhile = 32 << 20;
    std::size_t held_ = 0;
    std::size_t peak_ = 0; // since memory was returned
};

} // namespace KR
