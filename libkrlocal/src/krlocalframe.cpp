#include "krlocalframe.hpp"

#include "krlocal/krlocalmessage.hpp"

#include <cstring>
#include <type_traits>

namespace KR {

namespace {

constexpr std::uint32_t kMark = 0x4b524c31; // first bytes of every head

struct Fixed {
    std::uint32_t mark;
    std::uint32_t kind;
    std::uint32_t code;
    std::uint32_t memories;
    std::uint32_t forgotten;
    std::uint32_t binaries;
    std::uint64_t number;
    std::uint64_t bodySize;
};
static_assert(sizeof(Fixed) == 40 && std::is_trivially_copyable_v<Fixed>);

// Field by field: padding would carry bytes of the stack.
constexpr std::size_t kMemorySize = 12;
constexpr std::size_t kForgottenSize = 4;
constexpr std::size_t kBinarySize = 28;

template <class Number>
void append(std::string& bytes, Number number) {
    bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
}

class Reader {
public:
    explicit Reader(std::span<const unsigned char> bytes) : bytes_(bytes) {}

    template <class T>
    T read() {
        T value;
        if (bytes_.size() - at_ < sizeof value) {
            throw KRLocalMalformed("a message that ends within its head");
        }
        std::memcpy(&value, bytes_.data() + at_, sizeof value);
        at_ += sizeof value;
        return value;
    }
    /// \throws KRLocalMalformed fewer bytes are left
    void expect(std::uint64_t count) const {
        if (bytes_.size() - at_ < count) {
            throw KRLocalMalformed("a message that ends within its head");
        }
    }
    std::size_t getPosition() const noexcept { return at_; }

private:
    const std::span<const unsigned char> bytes_;
    std::size_t at_ = 0;
};

void check(std::uint64_t count, std::uint64_t most, const char* what) {
    if (count > most) {
        throw KRLocalMalformed(std::to_string(count) + " " + what + " in one message; the most is " +
                               std::to_string(most));
    }
}

} // namespace

std::string KRLocalFrame::compose() const {
    const Fixed fixed{kMark,
                      kind,
                      code,
                      static_cast<std::uint32_t>(memories.size()),
                      static_cast<std::uint32_t>(forgotten.size()),
                      static_cast<std::uint32_t>(binaries.size()),
                      number,
                      bodySize};
    std::string bytes;
    bytes.reserve(sizeof fixed + memories.size() * kMemorySize + forgotten.size() * kForgottenSize +
                  binaries.size() * kBinarySize);
    append(bytes, fixed);
    for (const Memory& memory : memories) {
        append(bytes, memory.id);
        append(bytes, memory.size);
    }
    for (const std::uint32_t id : forgotten) {
        append(bytes, id);
    }
    for (const Binary& binary : binaries) {
        append(bytes, binary.memory);
        append(bytes, binary.ticket);
        append(bytes, binary.generation);
        append(bytes, binary.offset);
        append(bytes, binary.size);
    }
    return bytes;
}

KRLocalFrame KRLocalFrame::parse(std::span<const unsigned char> packet, std::size_t& size) {
    Reader reader(packet);
    const auto fixed = reader.read<Fixed>();
    if (fixed.mark != kMark) {
        throw KRLocalMalformed("a message without the mark of this protocol");
    }
    if (fixed.kind > Further) {
        throw KRLocalMalformed("a message of kind " + std::to_string(fixed.kind));
    }
    check(fixed.memories, kMaxMemories, "new memories");
    check(fixed.forgotten, kMaxForgotten, "forgotten memories");
    check(fixed.binaries, KRLocalMessage::kMaxBinaries, "binaries");
    check(fixed.bodySize, KRLocalMessage::kMaxBytes, "bytes");
    reader.expect(fixed.memories * kMemorySize + fixed.forgotten * kForgottenSize +
                  fixed.binaries * kBinarySize);
    KRLocalFrame frame;
    frame.kind = static_cast<Kind>(fixed.kind);
    frame.code = fixed.code;
    frame.number = fixed.number;
    frame.bodySize = fixed.bodySize;
    for (std::uint32_t i = 0; i < fixed.memories; ++i) {
        const auto id = reader.read<std::uint32_t>();
        frame.memories.push_back({id, reader.read<std::uint64_t>()});
    }
    for (std::uint32_t i = 0; i < fixed.forgotten; ++i) {
        frame.forgotten.push_back(reader.read<std::uint32_t>());
    }
    std::uint64_t bytes = fixed.bodySize;
    for (std::uint32_t i = 0; i < fixed.binaries; ++i) {
        Binary binary{};
        binary.memory = reader.read<std::uint32_t>();
        binary.ticket = reader.read<std::uint32_t>();
        binary.generation = reader.read<std::uint32_t>();
        binary.offset = reader.read<std::uint64_t>();
        binary.size = reader.read<std::uint64_t>();
        check(binary.size, KRLocalMessage::kMaxBytes, "bytes");
        bytes += binary.size;
        frame.binaries.push_back(binary);
    }
    check(bytes, KRLocalMessage::kMaxBytes, "bytes");
    size = reader.getPosition();
    if (packet.size() - size > frame.getRest()) {
        throw KRLocalMalformed("a message that is longer than it says");
    }
    return frame;
}

std::uint64_t KRLocalFrame::getRest() const noexcept {
    std::uint64_t rest = bodySize;
    for (const Binary& binary : binaries) {
        rest += binary.memory == 0 ? binary.size : 0;
    }
    return rest;
}

} // namespace KR
