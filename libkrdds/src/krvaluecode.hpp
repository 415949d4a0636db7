#pragma once

#include "krbytes.hpp"

#include <krlocal/krlocalmessage.hpp>
#include <krplatform/krvalue.hpp>

#include <cstddef>
#include <stdexcept>

namespace KR {

/// Received data that is not in the expected format.
class KRMalformed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Limits of a value that is sent or received.
struct KRValueBounds {
    static constexpr std::size_t kDepth = 64;                    ///< arrays in arrays
    static constexpr std::size_t kValues = std::size_t{1} << 20; ///< in all
    static constexpr std::size_t kBytes = std::size_t{1} << 28;
};

/// Encodes a value in msgpack: nil, int, float 32, str, bin, array. Large binaries are shared, not copied.
/// \throws KRError beyond the bounds
KRComposedBytes encodeValue(const KRValue& value);

/// Decodes the value in `size` bytes at `offset`. Large binaries share the bytes received.
/// \param maxValues  bound of the number of values, arrays included
/// \throws KRMalformed not a value, more than one, or beyond the bounds
KRValue decodeValue(const KRReceivedBytes& received, std::size_t offset, std::size_t size,
                    std::size_t maxValues = KRValueBounds::kValues);

/// The same for another process of this machine: large binaries become binaries of the message, and the body has their
/// indices in extensions of type 1. Does not change the message's code. \throws KRError beyond the limits
void encodeValue(const KRValue& value, KRLocalMessage& message);
/// \throws KRMalformed as above; a missing binary
KRValue decodeValue(const KRLocalMessage& message);

} // namespace KR
