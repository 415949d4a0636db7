#include "krhostmeeting.hpp"

#include "krlocal/krhostdirectory.hpp"
#include "krlocal/krprocess.hpp"
#include "krlocalsocket.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <set>
#include <utility>

namespace KR {

namespace {

constexpr int kSlots = static_cast<int>(KRHostDirectory::kMaxBrokers);
constexpr int kBacklog = 1024;
constexpr int kMaxWakes = 64;             // to take at once: anybody can send them
constexpr std::size_t kMaxAtOnce = 32;    // meetings
constexpr std::size_t kMaxNewcomers = 64; // the rest wait in the backlog
constexpr std::chrono::seconds kNewcomerPatience{5};
constexpr std::chrono::milliseconds kRetry{50};
constexpr std::chrono::milliseconds kSilencePatience{1000}; // after which the rest are taken to be frozen
constexpr std::chrono::seconds kBusyPatience{10};
// A few that do not answer cost little if they are discovered by other means instead.
constexpr std::ptrdiff_t kFew = 4;
constexpr std::chrono::seconds kManyPatience{3};
constexpr std::chrono::seconds kCompletePatience{30};
constexpr std::chrono::milliseconds kStoppedCheck{100};
constexpr std::chrono::hours kForever{1};

[[noreturn]] void fail(const std::string& why) {
    throw KRError("KRHostDirectory", "join", why);
}

KRDescriptor createSocket(int type) {
    return KRDescriptor(socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

/// The other process of a connection; 0 if it may not be met.
pid_t identify(int socket) {
    static const KRLocalAdmission sameUser("");
    try {
        const pid_t process = sameUser.admit(socket);
        return process == getpid() ? 0 : process; // brokers of one process meet in other ways
    } catch (const KRError&) {
        return 0;
    }
}

/// A received greeting with its descriptor.
struct Received {
    enum class Outcome { Nothing, Greeting, Byte, Wrong } outcome = Outcome::Wrong;
    KRHostGreeting greeting;
    KRDescriptor memory;
};

Received receive(int socket) {
    Received received;
    iovec room{&received.greeting, sizeof received.greeting};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (size < 0) {
        received.outcome = errno == EAGAIN || errno == EINTR ? Received::Outcome::Nothing : received.outcome;
        return received;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
            received.memory = KRDescriptor(descriptor); // there is room for one
        }
    }
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        return received;
    }
    const KRHostGreeting& greeting = received.greeting;
    if (size == 1) {
        received.outcome = Received::Outcome::Byte;
    } else if (size == sizeof greeting && greeting.mark == KRHostGreeting::kMark && received.memory &&
               greeting.broker.front() != 0 && greeting.broker.back() == 0 &&
               greeting.slot < static_cast<std::uint32_t>(kSlots)) {
        received.outcome = Received::Outcome::Greeting;
    }
    return received;
}

} // namespace

KRHostGreeting::KRHostGreeting(const std::string& brokerId, bool publishesText)
    : mark(kMark), publishes(publishesText ? 1 : 0) {
    if (brokerId.empty() || brokerId.size() >= broker.size()) {
        fail("the identity of a broker has 1 to " + std::to_string(broker.size() - 1) + " bytes, not " +
             std::to_string(brokerId.size()));
    }
    std::copy(brokerId.begin(), brokerId.end(), broker.begin());
}

KRHostMeeting::KRHostMeeting(const std::string& directory, KRHostGreeting greeting, int entry)
    : prefix_("krvision-host-" + directory + "-" + std::to_string(geteuid()) + "-"), greeting_(greeting),
      entry_(entry), progress_(Clock::now()), begin_(progress_) {
    int own = 0;
    while (own < kSlots && !listen(own)) {
        ++own;
    }
    if (own == kSlots) {
        fail("there are " + std::to_string(kSlots) + " brokers already");
    }
    greeting_.slot = static_cast<std::uint32_t>(own);
    for (int slot = kSlots - 1; slot >= 0; --slot) { // the lowest at the end, as it is probed first
        if (slot != own) {
            unprobed_.push_back(slot);
        }
    }
}

/// \return false: the slot is taken
bool KRHostMeeting::listen(int slot) {
    const auto bindTo = [](const KRDescriptor& socket, const std::string& name) {
        sockaddr_un address{};
        const socklen_t size = toAbstract(name, address);
        return bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0;
    };
    const std::string name = prefix_ + std::to_string(slot);
    KRDescriptor waking = createSocket(SOCK_DGRAM);
    KRDescriptor listening = createSocket(SOCK_SEQPACKET);
    if (!waking || !listening) {
        fail(std::string("no socket: ") + std::strerror(errno));
    }
    // The socket that wakes first: whoever can connect can wake.
    if (!bindTo(waking, name + "-wake") || !bindTo(listening, name)) {
        if (errno == EADDRINUSE) {
            return false;
        }
        fail(std::string("a socket has no name: ") + std::strerror(errno));
    }
    if (::listen(listening.get(), kBacklog) != 0) {
        fail(std::string("a socket cannot listen: ") + std::strerror(errno));
    }
    waking_ = std::move(waking);
    listening_ = std::move(listening);
    return true;
}

void KRHostMeeting::wake(int slot) const noexcept {
    try {
        sockaddr_un address{};
        const socklen_t size = toAbstract(prefix_ + std::to_string(slot) + "-wake", address);
        // A full queue will wake it as well.
        sendto(waking_.get(), "", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address), size);
    } catch (const std::exception&) { // out of memory: it looks by itself, a little later
    }
}

std::chrono::milliseconds KRHostMeeting::addSockets(std::vector<pollfd>& sockets) const {
    sockets.push_back({waking_.get(), POLLIN, 0});
    if (Clock::now() < retry_) {
        return kRetry;
    }
    if (countNewcomers() < kMaxNewcomers) {
        sockets.push_back({listening_.get(), POLLIN, 0});
    }
    for (const Guest& guest : guests_) {
        sockets.push_back({guest.socket.get(), POLLIN, 0});
    }
    return complete_ ? kForever : hasBegun_ ? kRetry : std::chrono::milliseconds(0);
}

std::size_t KRHostMeeting::countNewcomers() const {
    return static_cast<std::size_t>(
        std::count_if(guests_.begin(), guests_.end(), [](const Guest& guest) { return guest.isNewcomer; }));
}

std::vector<KRHostMeeting::Met> KRHostMeeting::advance(const std::vector<pollfd>& sockets) {
    const auto now = Clock::now();
    std::array<char, 16> ignored{};
    for (int i = 0; i < kMaxWakes && recv(waking_.get(), ignored.data(), ignored.size(), MSG_DONTWAIT) >= 0;
         ++i) {
    }
    std::set<int> ready;
    for (const pollfd& each : sockets) {
        if (each.revents != 0) {
            ready.insert(each.fd);
        }
    }
    hasBegun_ = true;
    probe(now);
    acceptNewcomers(now);
    std::vector<Met> met;
    for (auto guest = guests_.begin(); guest != guests_.end();) {
        const bool isReady = guest->since == now || ready.contains(guest->socket.get());
        Step step = guest->isUnsent ? greet(*guest) : isReady ? advance(*guest) : Step::Waiting;
        if (step == Step::Waiting && guest->isNewcomer && now - guest->since >= kNewcomerPatience) {
            step = Step::Over;
        }
        if (step == Step::Waiting) {
            ++guest;
            continue;
        }
        progress_ = now;
        if (step == Step::Met) {
            if (guest->isNewcomer) {
                guest->met.newcomer = std::move(guest->socket);
            }
            met.push_back(std::move(guest->met));
        }
        guest = guests_.erase(guest);
    }
    greeted_ = countNewcomers() > 0;
    updateProgress(now);
    return met;
}

void KRHostMeeting::updateProgress(Clock::time_point now) {
    if (complete_) {
        return;
    }
    const auto silence = now - progress_;
    const auto waiting = std::ssize(guests_) - static_cast<std::ptrdiff_t>(countNewcomers());
    busy_ = (waiting > 0 || !unprobed_.empty()) && silence < kSilencePatience && now - begin_ < kBusyPatience;
    if (now - begin_ >= kCompletePatience || silence >= kManyPatience) {
        complete_ = true;
    } else if (unprobed_.empty()) {
        complete_ = waiting == 0 || (waiting <= kFew && silence >= kSilencePatience);
        if (!complete_ && silence >= kStoppedCheck && now - checked_ >= kStoppedCheck) {
            checked_ = now;
            complete_ = std::all_of(guests_.begin(), guests_.end(), [](const Guest& guest) {
                return guest.isNewcomer || isStopped(guest.process);
            });
        }
    }
    busy_ = busy_ && !complete_;
}

void KRHostMeeting::probe(Clock::time_point now) {
    while (!unprobed_.empty()) {
        const auto underWay = std::count_if(guests_.begin(), guests_.end(), [&](const Guest& guest) {
            return !guest.isNewcomer && now - guest.since < kSilencePatience;
        });
        if (static_cast<std::size_t>(underWay) >= kMaxAtOnce || !connectTo(unprobed_.back(), now)) {
            return; // later
        }
        unprobed_.pop_back();
    }
}

/// \return false: it has to be tried again
bool KRHostMeeting::connectTo(int slot, Clock::time_point now) {
    if (!trying_) {
        trying_ = createSocket(SOCK_SEQPACKET);
    }
    if (!trying_) {
        return false; // no descriptor is free
    }
    sockaddr_un address{};
    const socklen_t size = toAbstract(prefix_ + std::to_string(slot), address);
    if (connect(trying_.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        return errno != EAGAIN && errno != EINTR; // otherwise nobody listens there
    }
    Guest guest;
    guest.socket = std::move(trying_);
    guest.process = guest.met.process = identify(guest.socket.get());
    guest.met.slot = slot;
    guest.since = now;
    if (guest.met.process != 0 && greet(guest) == Step::Waiting) {
        guests_.push_back(std::move(guest));
    }
    return true;
}

void KRHostMeeting::acceptNewcomers(Clock::time_point now) {
    for (std::size_t count = countNewcomers(); count < kMaxNewcomers && now >= retry_; ++count) {
        Guest guest;
        guest.socket =
            KRDescriptor(accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!guest.socket) {
            if (errno != EAGAIN) {
                hasRoom(now);
            }
            return;
        }
        guest.isNewcomer = true;
        guest.met.process = identify(guest.socket.get());
        guest.since = now;
        if (guest.met.process != 0) {
            guests_.push_back(std::move(guest));
        }
    }
}

/// Whether a descriptor is free. If not, there is a pause.
bool KRHostMeeting::hasRoom(Clock::time_point now) {
    if (now < retry_) {
        return false;
    }
    if (const KRDescriptor spare(fcntl(waking_.get(), F_DUPFD_CLOEXEC, 0)); spare) {
        isShort_ = false;
        return true;
    }
    if (!std::exchange(isShort_, true)) {
        logWarning("krlocal",
                   std::string("others of this host have to wait to be met: ") + std::strerror(errno));
    }
    retry_ = now + kRetry;
    return false;
}

KRHostMeeting::Step KRHostMeeting::advance(Guest& guest) {
    if (!guest.isGreeted && !hasRoom(Clock::now())) {
        return Step::Waiting; // what is received now would be lost
    }
    Received received = receive(guest.socket.get());
    if (received.outcome == Received::Outcome::Nothing) {
        return Step::Waiting;
    }
    if (guest.isGreeted) {
        return received.outcome == Received::Outcome::Byte ? Step::Met : Step::Over;
    }
    if (received.outcome != Received::Outcome::Greeting) {
        return Step::Over;
    }
    guest.met.broker = received.greeting.broker.data();
    guest.met.publishes = received.greeting.publishes != 0;
    guest.met.memory = std::move(received.memory);
    guest.isGreeted = true;
    if (guest.isNewcomer) {
        guest.met.slot = static_cast<int>(received.greeting.slot);
        return greet(guest);
    }
    return confirm(guest.socket) ? Step::Waiting : Step::Over;
}

bool KRHostMeeting::confirm(const KRDescriptor& socket) noexcept {
    return ::send(socket.get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL) == 1;
}

KRHostMeeting::Step KRHostMeeting::greet(Guest& guest) {
    const Sent sent = send(guest.socket.get());
    guest.isUnsent = sent == Sent::Later;
    return sent == Sent::Never ? Step::Over : Step::Waiting;
}

/// Sends the greeting.
KRHostMeeting::Sent KRHostMeeting::send(int socket) const noexcept {
    KRHostGreeting greeting = greeting_;
    iovec bytes{&greeting, sizeof greeting};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &entry_, sizeof entry_);
    if (sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof greeting)) {
        return Sent::Yes;
    }
    // The kernel limits how many descriptors of a user are under way.
    return errno == ETOOMANYREFS || errno == EAGAIN || errno == EINTR || errno == ENOBUFS ? Sent::Later
                                                                                          : Sent::Never;
}

} // namespace KR
