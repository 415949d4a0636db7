#pragma once

#include "krdescriptor.hpp"

#include <poll.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <list>
#include <string>
#include <vector>

namespace KR {

/// The message with which brokers hand each other their entry, in the byte order of the machine.
struct KRHostGreeting {
    static constexpr std::array<char, 8> kMark{'K', 'R', 'H', 'o', 's', 't', '/', '2'};

    KRHostGreeting() = default;
    /// \throws KRError the identity is empty or too long
    KRHostGreeting(const std::string& brokerId, bool publishesText);

    std::array<char, 8> mark{};
    std::uint32_t publishes = 0;
    std::uint32_t slot = 0;
    std::array<char, 64> broker{}; // ends with a zero byte
};

/// How the brokers of a KRHostDirectory meet: each listens under a numbered name, its slot, and connects to all others when
/// it comes. The two check each other's user, hand over the descriptors of their entries, and disconnect.
///
///     newcomer  -> greeting with descriptor
///     the other -> greeting with descriptor
///     newcomer  -> one byte: it has the entry
///     the other -> one byte, once the newcomer's entry has taken effect, and disconnects
///
/// A newcomer that does not get the last byte has not met the other, nor the other it: either may have been too slow.
/// A second socket of each only wakes its owner. wake(), isBusy(), isComplete() and isGreeted() may be called on any thread, the rest on one.
class KRHostMeeting {
public:
    /// Takes a slot. \param entry  descriptor to hand out \throws KRError no socket; no slot is free
    KRHostMeeting(const std::string& directory, KRHostGreeting greeting, int entry);

    struct Met {
        std::string broker;
        pid_t process = 0;
        int slot = 0;
        bool publishes = false;
        KRDescriptor memory;
        KRDescriptor
            newcomer; // its connection, for confirm() when the entry has taken effect; empty: not a newcomer
    };

    /// Sends the byte that ends the part of this broker.
    static bool confirm(const KRDescriptor& socket) noexcept;
    /// Has the broker with this slot look for news. Never blocks.
    void wake(int slot) const noexcept;
    /// Whether brokers that were there before are still answering.
    bool isBusy() const noexcept { return busy_; }
    /// Whether all of them have been met that are not stopped, or it has taken too long.
    bool isComplete() const noexcept { return complete_; }
    /// Whether a newcomer is being met.
    bool isGreeted() const noexcept { return greeted_; }

    /// Whether there is nobody to meet. On the thread of advance().
    bool isAtRest() const noexcept { return complete_ && guests_.empty(); }
    /// Adds what to wait for. \return for how long at most
    std::chrono::milliseconds addSockets(std::vector<pollfd>& sockets) const;
    /// Continues all meetings. \param sockets  after poll() \return the brokers met
    std::vector<Met> advance(const std::vector<pollfd>& sockets);

private:
    using Clock = std::chrono::steady_clock;

    struct Guest { // somebody being met
        KRDescriptor socket;
        pid_t process = 0;
        bool isNewcomer = false; // it has connected to this broker
        bool isGreeted = false;  // its greeting has come
        bool isUnsent = false;   // the greeting to it
        Met met;
        Clock::time_point since;
    };
    enum class Step { Waiting, Met, Over };
    enum class Sent { Yes, Later, Never };

    bool listen(int slot);
    std::size_t countNewcomers() const;
    void probe(Clock::time_point now);
    bool connectTo(int slot, Clock::time_point now);
    void acceptNewcomers(Clock::time_point now);
    Step advance(Guest& guest);
    Step greet(Guest& guest);
    void updateProgress(Clock::time_point now);
    bool hasRoom(Clock::time_point now);
    Sent send(int socket) const noexcept;

    const std::string prefix_; // of the names of sockets
    KRHostGreeting greeting_;
    const int entry_;
    KRDescriptor listening_;
    KRDescriptor waking_;
    KRDescriptor trying_; // not connected yet
    std::vector<int> unprobed_;
    std::list<Guest> guests_;
    bool hasBegun_ = false; // to meet others
    Clock::time_point progress_;
    Clock::time_point begin_;
    Clock::time_point checked_; // which are stopped
    Clock::time_point retry_;   // when there may be a free descriptor again
    bool isShort_ = false;      // of descriptors
    std::atomic<bool> busy_ = true;
    std::atomic<bool> complete_ = false;
    std::atomic<bool> greeted_ = false;
};

} // namespace KR
