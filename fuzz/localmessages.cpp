// Messages of another process on this machine: any bytes are parsed or refused. The first byte is the size of the
// first packet, in units of 16 bytes, so that messages arrive in several packets.

#include "krlocalchannel.hpp"

#include <krplatform/krlog.hpp>

#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace {

void parse(const std::uint8_t* data, std::size_t size) {
    try {
        std::size_t head = 0;
        const KR::KRLocalFrame frame = KR::KRLocalFrame::parse({data, size}, head);
        // What was parsed can be sent again, with the same meaning.
        const std::string again = frame.compose();
        if (!std::equal(again.begin(), again.end(), reinterpret_cast<const char*>(data))) {
            __builtin_trap();
        }
    } catch (const KR::KRLocalMalformed&) { // expected for most
    }
}

void receive(const std::uint8_t* data, std::size_t size) {
    int sockets[2];
    if (size < 2 || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) {
        return;
    }
    const KR::KRDescriptor sender(sockets[0]);
    static const auto waker = std::make_shared<const KR::KRLocalWaker>();
    KR::KRLocalChannel channel(KR::KRDescriptor(sockets[1]), 0, std::make_shared<KR::KRLocalCounts>(), waker);
    std::size_t packet = std::max<std::size_t>(1, data[0] * 16U);
    for (++data, --size; size > 0;) {
        const std::size_t count = std::min(packet, size);
        if (send(sender.get(), data, count, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            break;
        }
        data += count;
        size -= count;
    }
    try {
        while (channel.receive(false)) {
        }
    } catch (const KR::KRLocalMalformed&) {
    } catch (const KR::KRLocalClosed&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    parse(data, size);
    receive(data, size);
    return 0;
}
