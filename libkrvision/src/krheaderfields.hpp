#pragma once

#include <cstring>

namespace KR {

/// Reads a header field in native byte order and advances past it. `at` need not be aligned.
template <class T>
T takeField(const unsigned char*& at) noexcept {
    T field;
    std::memcpy(&field, at, sizeof field);
    at += sizeof field;
    return field;
}

/// Writes a header field in native byte order and advances past it. `at` need not be aligned.
template <class T>
void putField(unsigned char*& at, T field) noexcept {
    std::memcpy(at, &field, sizeof field);
    at += sizeof field;
}

} // namespace KR
