#pragma once

#include <krplatform/krexport.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace KR {

/// The brokers of one user on this machine, which find each other without a server and without the network.
///
/// Each broker has an entry: shared memory that the others map read-only. The owner of an entry increments its beats, and
/// may publish a text in it. Reading an entry takes no message, and the kernel frees it when its process ends.
///
/// Threads: publish(), leave(), hasNews(), isMeeting(), hasMetAll() and interrupt() may be called on any thread, the others on one.
class KR_EXPORT KRHostDirectory {
public:
    static constexpr std::size_t kMaxText = (std::size_t{1} << 20) + (std::size_t{1} << 16); ///< bytes
    static constexpr std::size_t kMaxBrokers = 1024;                                         ///< of one user

    /// What a broker joins, and as whom.
    struct Options {
        std::string name;       ///< of the directory; up to 32 bytes
        std::string broker;     ///< own identity, 1 to 63 bytes
        bool publishes = false; ///< whether the own entry will have a text
    };
    /// What has happened to another broker.
    struct News {
        /// A frozen process is reported after each beat(); after a thaw, its text counts as published again.
        enum class Kind {
            Published, ///< its text is new
            Left,      ///< it has left
            Ended,     ///< its process has ended, or writes what is not valid
            Frozen     ///< its process is frozen
        };
        Kind kind;          ///< of news
        std::string broker; ///< its identity
        pid_t process = 0;  ///< its process, as the kernel says
        std::string text;   ///< with Published; written by another process, which may write anything
    };

    /// An empty directory; wait() works. \throws std::system_error
    KRHostDirectory();
    ~KRHostDirectory();
    KRHostDirectory(const KRHostDirectory&) = delete;
    KRHostDirectory& operator=(const KRHostDirectory&) = delete;

    /// Creates the own entry and begins to meet the others. Call it once.
    /// \throws KRError no socket or memory; there are kMaxBrokers already
    void join(const Options& options);

    /// Replaces the text of the own entry and wakes the others. Of two brokers that publish and then take news, at
    /// least one reads what the other has published. No effect before join(), and without
    /// Options::publishes. \throws KRError longer than kMaxText
    void publish(std::string_view text);
    /// Marks the own entry as left.
    void leave() noexcept;
    /// Whether the broker has published something since the last settle(), or whether others are about to join.
    bool hasNews(const std::string& broker) const;
    /// Whether brokers that were there at join() have not been met yet. False once none of them has answered for a
    /// while, as they may be frozen.
    bool isMeeting() const noexcept;
    /// Whether all brokers that were there at join() have been met, except those of stopped processes. True once none of
    /// them has answered for a second, or three if there are more than four, and after half a minute in any case.
    bool hasMetAll() const noexcept;
    /// Makes wait() return, and takeNews() look at all others.
    void interrupt() noexcept;

    /// Waits until there may be news, interrupt() was called or the time is over; meets others meanwhile.
    /// \return whether something has woken it
    bool wait(std::chrono::milliseconds time);
    /// Waits for interrupt() only: between looks at a busy directory.
    void pause(std::chrono::microseconds time);
    /// What has happened since the last call.
    std::vector<News> takeNews();
    /// What takeNews() returned last has taken effect. Newcomers wait for that in hasMetAll().
    void settle();
    /// Increments the beats of the own entry, and checks those of the others.
    /// \param time  a broker without a beat in two calls and for this time is frozen if its process is stopped. After ten
    ///              times as long also if not, as it may be waiting for a processor
    void beat(std::chrono::milliseconds time);
    /// Whether the broker is one of the others.
    bool knows(const std::string& broker) const;

private:
    class Private;
    const std::unique_ptr<Private> private_;
};

} // namespace KR
