#pragma once

#include <unistd.h>

#include <utility>

namespace KR {

/// Owns a file descriptor.
class KRDescriptor {
public:
    KRDescriptor() = default;
    explicit KRDescriptor(int number) noexcept : number_(number) {}
    KRDescriptor(KRDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    KRDescriptor& operator=(KRDescriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~KRDescriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    KRDescriptor(const KRDescriptor&) = delete;
    KRDescriptor& operator=(const KRDescriptor&) = delete;

    int get() const noexcept { return number_; }
    explicit operator bool() const noexcept { return number_ >= 0; }

private:
    int number_ = -1;
};

} // namespace KR
