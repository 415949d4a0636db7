#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace KR {

/// Another process has broken the protocol.
class KRLocalMalformed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The head of a message on the socket, in the byte order of the machine.
///
/// A message is one packet or several. The first begins with the head; the body follows, then the bytes of the binaries
/// that are not in shared memory. The rest follows in further packets, in order.
struct KRLocalFrame {
    enum Kind : std::uint32_t {
        Hello,      ///< caller to server, first: version as number, secret and identity in the body
        Welcome,    ///< the server's answer, with its bell
        Request,    ///< number chosen by the caller, who has no other unanswered request
        Reply,      ///< to the request of this number
        Unanswered, ///< the request of this number was destroyed unanswered
        Notice,     ///< only about memories
        Further     ///< as Request, while others are unanswered; the caller signals the bell before it
    };
    /// New shared memory of the sender; its descriptor accompanies the packet, in the same order.
    struct Memory {
        std::uint32_t id;
        std::uint64_t size;
    };
    struct Binary {
        std::uint32_t memory; ///< id; 0: in the message itself
        std::uint32_t ticket; ///< for returning it
        std::uint32_t generation;
        std::uint64_t offset; ///< in the memory
        std::uint64_t size;
    };

    static constexpr std::size_t kPacket = std::size_t{64} << 10; ///< largest packet in bytes
    static constexpr std::size_t kMaxMemories = 64;               ///< in one message
    static constexpr std::size_t kMaxForgotten = 1024;            ///< in one message

    Kind kind = Request;
    std::uint32_t code = 0;
    std::uint64_t number = 0;
    std::uint64_t bodySize = 0;
    std::vector<Memory> memories;
    std::vector<std::uint32_t> forgotten; ///< ids of freed memories
    std::vector<Binary> binaries;

    /// The head as bytes.
    std::string compose() const;
    /// \param[out] size  bytes of the head \throws KRLocalMalformed
    static KRLocalFrame parse(std::span<const unsigned char> packet, std::size_t& size);
    /// Bytes of the message after its head.
    std::uint64_t getRest() const noexcept;
};

} // namespace KR
