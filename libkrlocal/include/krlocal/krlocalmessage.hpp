#pragma once

#include <krplatform/krvalue.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace KR {

/// Contents of a request or reply to another process of this machine.
///
/// The body is copied. Binaries of kSharedFrom bytes and more are passed in shared memory if there is room, and copied
/// otherwise. The body refers to binaries by index, in a form that sender and receiver agree on.
struct KRLocalMessage {
    /// Bytes from which a binary travels in shared memory.
    static constexpr std::size_t kSharedFrom = std::size_t{16} << 10;
    static constexpr std::size_t kMaxBinaries = 1024; ///< in one message
    /// Largest body and binaries together, in bytes.
    static constexpr std::size_t kMaxBytes = (std::size_t{1} << 28) + (std::size_t{1} << 20);

    std::uint32_t code = 0; ///< kind of message, for the receiver
    std::string body;       ///< encoded values
    /// Those received in shared memory are read-only, and return to the sender with their last copy. The sender can
    /// change their bytes at any time: copy them before parsing.
    std::vector<KRBinary> binaries;
};

} // namespace KR
