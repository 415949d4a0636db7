#pragma once

#include <krplatform/krvalue.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace KR {

/// What a request or a reply carries to another process of this machine.
///
/// The body is copied; binaries of kSharedFrom bytes and more are handed over in shared memory while there is room for
/// them, and copied otherwise. Where in the body a binary belongs is up to the sender and the receiver: they agree on its
/// index.
struct KRLocalMessage {
    /// Bytes from which a binary travels in shared memory.
    static constexpr std::size_t kSharedFrom = std::size_t{16} << 10;
    static constexpr std::size_t kMaxBinaries = 1024; ///< in one message
    /// Largest body and binaries together, in bytes.
    static constexpr std::size_t kMaxBytes = (std::size_t{1} << 28) + (std::size_t{1} << 20);

    std::uint32_t code = 0; ///< for the receiver: what this is
    std::string body;       ///< encoded values
    /// Those received in shared memory are read-only, and go back to the sender with their last copy. The sender is
    /// able to change their bytes at any time: copy what is parsed before parsing it.
    std::vector<KRBinary> binaries;
};

} // namespace KR
