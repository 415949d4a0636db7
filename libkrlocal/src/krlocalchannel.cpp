#include "krlocalchannel.hpp"

#include <krplatform/krerror.hpp>

#include <boost/smart_ptr/make_shared.hpp>

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string_view>
#include <system_error>

namespace KR {

namespace {

constexpr std::size_t kMaxPieces = 64; // of one packet
constexpr std::size_t kMaxDescriptors = KRLocalFrame::kMaxMemories;

/// Each thread has a buffer for a packet. Bodies are copied out of it, so the sender cannot change them during
/// parsing.
unsigned char* getPacketBuffer() {
    thread_local const auto buffer = std::make_unique_for_overwrite<unsigned char[]>(KRLocalFrame::kPacket);
    return buffer.get();
}

/// Accepts only an eventfd: writing to one raises no signal and passes no data on.
bool isBell(const KRDescriptor& descriptor) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor.get());
    std::array<char, 64> target{};
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    return length > 0 &&
           std::string_view(target.data(), static_cast<std::size_t>(length)) == "anon_inode:[eventfd]";
}

std::span<const unsigned char> toBytes(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

} // namespace

struct KRLocalChannel::Packet {
    std::span<const unsigned char> bytes; // in the buffer of this thread
    std::vector<KRDescriptor> descriptors;
};

struct KRLocalChannel::Outgoing {
    KRLocalFrame frame;
    std::vector<std::span<const unsigned char>> rest;            // after the head
    std::vector<std::shared_ptr<const KRSharedMemory>> memories; // that go with it
    std::uint64_t lent = 0;
    std::uint64_t streamed = 0;
};

KRLocalChannel::KRLocalChannel(KRDescriptor socket, pid_t process, std::shared_ptr<KRLocalCounts> counts,
                               std::shared_ptr<const KRLocalWaker> waker)
    : socket_(std::move(socket)), process_(process), counts_(std::move(counts)), waker_(std::move(waker)) {}

void KRLocalChannel::open(const std::shared_ptr<KRLocalPool>& pool,
                          const std::shared_ptr<KRLendings::Bytes>& lentBytes) {
    pool_ = pool;
    lendings_ = std::make_shared<KRLendings>(pool, lentBytes, std::move(returns_));
    pool->attach(lendings_);
}

void KRLocalChannel::close() noexcept {
    ::shutdown(socket_.get(), SHUT_RDWR);
    if (lendings_ && lendings_->close(process_)) {
        pool_->keepUntilReturned(lendings_);
    }
}

void KRLocalChannel::disown() noexcept {
    ::shutdown(socket_.get(), SHUT_RDWR);
    if (lendings_) {
        lendings_->close(0);
    }
}

bool KRLocalChannel::sendGreeting(KRLocalFrame::Kind kind, std::uint64_t number, const std::string& body,
                                  int bell) {
    KRLocalFrame frame;
    frame.kind = kind;
    frame.number = number;
    frame.bodySize = body.size();
    frame.memories.push_back({1, borrowings_.getReturns().size()});
    std::vector<int> descriptors{borrowings_.getReturns().getDescriptor()};
    if (bell >= 0) {
        descriptors.push_back(bell);
    }
    const KRLock lock(sendMutex_);
    return write(frame.compose(), {toBytes(body)}, descriptors, true);
}

std::optional<KRLocalChannel::Received> KRLocalChannel::receiveGreeting() {
    Packet packet;
    if (!receivePacket(packet, false)) {
        return std::nullopt;
    }
    std::size_t headSize = 0;
    const KRLocalFrame frame = KRLocalFrame::parse(packet.bytes, headSize);
    if ((frame.kind != KRLocalFrame::Hello && frame.kind != KRLocalFrame::Welcome) ||
        frame.memories.size() != 1 || !frame.binaries.empty() ||
        packet.descriptors.size() != (frame.kind == KRLocalFrame::Welcome ? 2 : 1) ||
        packet.bytes.size() - headSize != frame.bodySize) {
        throw KRLocalMalformed("an invalid greeting");
    }
    if (frame.kind == KRLocalFrame::Welcome && !isBell(packet.descriptors[1])) {
        throw KRLocalMalformed("a bell that is not an eventfd");
    }
    if (frame.memories[0].size != KRReturns::kSize) {
        throw KRLocalMalformed("a page of returns of " + std::to_string(frame.memories[0].size) + " bytes");
    }
    returns_ = std::make_unique<const KRForeignMemory>(packet.descriptors[0], KRReturns::kSize);
    if (frame.kind == KRLocalFrame::Welcome) {
        bell_ = std::move(packet.descriptors[1]);
    }
    Received received{frame.kind, frame.number, 0, {}};
    received.message.body.assign(reinterpret_cast<const char*>(packet.bytes.data()) + headSize,
                                 frame.bodySize);
    return received;
}

void KRLocalChannel::send(KRLocalFrame::Kind kind, std::uint64_t number, const KRLocalMessage& message) {
    std::size_t size = message.body.size();
    for (const KRBinary& binary : message.binaries) {
        size += std::min(binary.size(), KRLocalMessage::kMaxBytes + 1); // no overflow
    }
    if (size > KRLocalMessage::kMaxBytes || message.binaries.size() > KRLocalMessage::kMaxBinaries) {
        throw KRError("KRLocalConnection", "send",
                      "a message of " + std::to_string(message.binaries.size()) + " binaries and " +
                          std::to_string(size) + " bytes; the most is " +
                          std::to_string(KRLocalMessage::kMaxBinaries) + " and " +
                          std::to_string(KRLocalMessage::kMaxBytes));
    }
    std::vector<KRBinary> shared; // copied before taking the lock
    for (const KRBinary& binary : message.binaries) {
        shared.push_back(binary.size() >= KRLocalMessage::kSharedFrom ? lendings_->toShared(binary)
                                                                      : KRBinary());
    }
    Outgoing outgoing;
    KRLocalFrame& frame = outgoing.frame;
    frame.code = message.code;
    frame.number = number;
    const KRLock lock(sendMutex_);
    frame.kind = kind;
    if (kind == KRLocalFrame::Request && unanswered_++ > 0) {
        frame.kind = KRLocalFrame::Further;
        eventfd_write(bell_.get(), 1); // fails if the server has missed 2^64 of them
    }
    frame.forgotten = lendings_->takeForgotten();
    compose(outgoing, message, shared, KRLocalFrame::kMaxMemories);
    std::vector<int> descriptors;
    for (const auto& memory : outgoing.memories) {
        descriptors.push_back(memory->getDescriptor());
    }
    if (!write(frame.compose(), std::move(outgoing.rest), descriptors, true)) {
        lendings_->takeBack(frame);
        counts_->shared -= outgoing.lent;
        counts_->streamed -= outgoing.streamed;
        compose(outgoing, message, shared, 0);
        write(frame.compose(), std::move(outgoing.rest), {}, true);
    }
}

void KRLocalChannel::compose(Outgoing& outgoing, const KRLocalMessage& message,
                             const std::vector<KRBinary>& shared, std::size_t mostMemories) {
    KRLocalFrame& frame = outgoing.frame;
    frame.bodySize = message.body.size();
    frame.memories.clear();
    frame.binaries.clear();
    outgoing.memories.clear();
    outgoing.rest = {toBytes(message.body)};
    outgoing.lent = outgoing.streamed = 0;
    for (std::size_t i = 0; i < shared.size(); ++i) {
        const KRBinary& binary = message.binaries[i];
        if (shared[i].size() > 0 && lendings_->lend(shared[i], frame, outgoing.memories, mostMemories)) {
            ++outgoing.lent;
            continue;
        }
        frame.binaries.push_back({0, 0, 0, 0, binary.size()});
        outgoing.rest.emplace_back(binary.data(), binary.size());
        if (binary.size() >= KRLocalMessage::kSharedFrom) {
            ++outgoing.streamed;
        }
    }
    if (lendings_->isClosed()) { // nothing will be sent
        outgoing.streamed = 0;
    }
    counts_->shared += outgoing.lent;
    counts_->streamed += outgoing.streamed;
}

bool KRLocalChannel::sendNotice() {
    lendings_->check();
    const std::unique_lock lock(sendMutex_, std::try_to_lock);
    if (!lock) {
        return true; // another thread is sending; next time
    }
    KRLocalFrame frame;
    frame.kind = KRLocalFrame::Notice;
    frame.forgotten = lendings_->takeForgotten();
    if (!frame.forgotten.empty() && !write(frame.compose(), {}, {}, false)) {
        lendings_->returnForgotten(frame.forgotten);
        return true;
    }
    return frame.forgotten.size() == KRLocalFrame::kMaxForgotten; // there may be more
}

bool KRLocalChannel::write(const std::string& head, std::vector<std::span<const unsigned char>> rest,
                           const std::vector<int>& descriptors, bool wait) {
    std::vector<std::span<const unsigned char>> pieces{toBytes(head)};
    std::size_t room = KRLocalFrame::kPacket - head.size();
    bool first = true;
    for (std::span<const unsigned char> piece : rest) {
        while (!piece.empty()) {
            if (room == 0 || pieces.size() == kMaxPieces) {
                if (!writePacket(pieces, first ? descriptors : std::vector<int>(), wait)) {
                    return false;
                }
                first = false;
                pieces.clear();
                room = KRLocalFrame::kPacket;
            }
            const std::size_t count = std::min(room, piece.size());
            pieces.push_back(piece.first(count));
            piece = piece.subspan(count);
            room -= count;
        }
    }
    return pieces.empty() || writePacket(pieces, first ? descriptors : std::vector<int>(), wait);
}

bool KRLocalChannel::writePacket(std::span<const std::span<const unsigned char>> pieces,
                                 const std::vector<int>& descriptors, bool wait) {
    std::array<iovec, kMaxPieces> parts{};
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        parts[i] = {const_cast<unsigned char*>(pieces[i].data()), pieces[i].size()};
    }
    alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(kMaxDescriptors * sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = pieces.size();
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
        cmsghdr* const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size() * sizeof(int));
    }
    for (;;) {
        if (sendmsg(socket_.get(), &message, MSG_NOSIGNAL | (wait ? 0 : MSG_DONTWAIT)) >= 0) {
            return true;
        }
        if (!wait && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return false;
        }
        if (errno == ETOOMANYREFS && !descriptors.empty()) {
            return false;
        }
        if (errno != EINTR) {
            const std::string why = std::strerror(errno);
            ::shutdown(socket_.get(), SHUT_RDWR);
            throw KRLocalClosed(why);
        }
    }
}

bool KRLocalChannel::receivePacket(Packet& packet, bool wait) {
    unsigned char* const buffer = getPacketBuffer();
    alignas(cmsghdr) std::array<unsigned char, CMSG_SPACE(kMaxDescriptors * sizeof(int))> control;
    iovec part{buffer, KRLocalFrame::kPacket};
    msghdr message{};
    ssize_t count = 0;
    for (bool reset = false;;) {
        message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        count = recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC | (wait ? 0 : MSG_DONTWAIT));
        if (count >= 0) {
            break;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return false;
        }
        if (errno == ECONNRESET && !reset) {
            reset =
                true; // the other closed without reading everything; what it sent before is still readable
        } else if (errno != EINTR) {
            throw KRLocalClosed(std::strerror(errno));
        }
    }
    for (cmsghdr* each = CMSG_FIRSTHDR(&message); each != nullptr; each = CMSG_NXTHDR(&message, each)) {
        if (each->cmsg_level != SOL_SOCKET || each->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const std::size_t descriptors = (each->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < descriptors; ++i) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(each) + i * sizeof(int), sizeof descriptor);
            packet.descriptors.emplace_back(descriptor);
        }
    }
    if (count == 0 && packet.descriptors.empty()) {
        throw KRLocalClosed("it has closed the connection or ended");
    }
    if ((message.msg_flags & MSG_CTRUNC) != 0) {
        if (packet.descriptors.size() == kMaxDescriptors) {
            throw KRLocalMalformed("more descriptors than allowed");
        }
        throw std::system_error(EMFILE, std::generic_category(), "shared memory cannot be received");
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) {
        throw KRLocalMalformed("a packet of more than " + std::to_string(KRLocalFrame::kPacket) + " bytes");
    }
    packet.bytes = {buffer, static_cast<std::size_t>(count)};
    return true;
}

void KRLocalChannel::setPatience(std::chrono::milliseconds patience) {
    const timeval time{patience.count() / 1000, patience.count() % 1000 * 1000};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
}

std::optional<KRLocalChannel::Received> KRLocalChannel::receive(bool wait) {
    for (;;) {
        Packet packet;
        try {
            if (!receivePacket(packet, wait)) {
                return std::nullopt;
            }
        } catch (const KRLocalClosed&) {
            if (assembly_) {
                assembly_.reset();
                throw KRLocalMalformed("a truncated message");
            }
            throw;
        }
        if (!assembly_) {
            std::size_t headSize = 0;
            const KRLocalFrame frame = KRLocalFrame::parse(packet.bytes, headSize);
            if (frame.memories.size() != packet.descriptors.size()) {
                throw KRLocalMalformed(std::to_string(packet.descriptors.size()) + " descriptors for " +
                                       std::to_string(frame.memories.size()) + " new memories");
            }
            updateBorrowings(frame, packet);
            assembly_ = begin(frame);
            assembly_->fill(packet.bytes.subspan(headSize));
        } else {
            if (!packet.descriptors.empty()) {
                throw KRLocalMalformed("descriptors within a message");
            }
            assembly_->fill(packet.bytes);
        }
        if (assembly_->isComplete()) {
            Received received = std::move(assembly_->received);
            assembly_.reset();
            if (received.kind == KRLocalFrame::Reply || received.kind == KRLocalFrame::Unanswered) {
                --unanswered_;
            }
            return received;
        }
    }
}

void KRLocalChannel::updateBorrowings(const KRLocalFrame& frame, const Packet& packet) {
    if (frame.forgotten.empty() && frame.memories.empty()) {
        return;
    }
    for (const std::uint32_t id : frame.forgotten) {
        borrowings_.forget(id);
    }
    for (std::size_t i = 0; i < frame.memories.size(); ++i) {
        borrowings_.add(frame.memories[i], packet.descriptors[i]);
    }
    const bool borrows = !borrowings_.isEmpty();
    if (borrows_.exchange(borrows) != borrows && borrows) {
        waker_->wake();
    }
}

KRLocalChannel::Assembly KRLocalChannel::begin(const KRLocalFrame& frame) {
    Assembly assembly{{frame.kind, frame.number, static_cast<std::size_t>(frame.getRest()), {}}, {}, {}};
    assembly.received.message.code = frame.code;
    assembly.bodyMissing = frame.bodySize;
    assembly.streamed.resize(frame.binaries.size());
    for (std::size_t i = 0; i < frame.binaries.size(); ++i) {
        const KRLocalFrame::Binary& binary = frame.binaries[i];
        assembly.sizes.push_back(static_cast<std::size_t>(binary.size));
        if (binary.memory != 0) {
            assembly.received.message.binaries.push_back(borrowings_.take(binary));
            continue;
        }
        // Untouched until bytes arrive, so an announced size alone takes no memory.
        assembly.streamed[i] = boost::make_shared_noinit<unsigned char[]>(assembly.sizes[i]);
        assembly.received.message.binaries.emplace_back(assembly.streamed[i], assembly.sizes[i]);
    }
    assembly.skipComplete();
    return assembly;
}

bool KRLocalChannel::Assembly::isComplete() const noexcept {
    return bodyMissing == 0 && next == streamed.size();
}

void KRLocalChannel::Assembly::skipComplete() noexcept {
    while (next < streamed.size() && (!streamed[next] || filled == sizes[next])) {
        ++next;
        filled = 0;
    }
}

void KRLocalChannel::Assembly::fill(std::span<const unsigned char> bytes) {
    std::size_t count = std::min<std::size_t>(bytes.size(), bodyMissing);
    received.message.body.append(reinterpret_cast<const char*>(bytes.data()), count);
    bodyMissing -= count;
    bytes = bytes.subspan(count);
    while (!bytes.empty()) {
        if (next == streamed.size()) {
            throw KRLocalMalformed("a message that is longer than it says");
        }
        count = std::min(bytes.size(), sizes[next] - filled);
        std::memcpy(streamed[next].get() + filled, bytes.data(), count);
        filled += count;
        bytes = bytes.subspan(count);
        skipComplete();
    }
}

} // namespace KR
