#pragma once

#include "tool/command.hpp"

#include <cstddef>
#include <memory>
#include <string>

namespace KR::tool {

class Interruption;

/// Text on its way to standard output, written by a separate thread, so that a stalled reader blocks neither
/// other threads nor the end of the program. Thread-safe, but for finish().
///
/// Nothing else may write to standard output at the same time.
class Output {
public:
    static constexpr std::size_t kCapacity = 64 << 10; ///< bytes

    /// \param capacity  bytes that may wait to be written; a single longer text is accepted when nothing waits
    explicit Output(std::size_t capacity = kCapacity);
    /// Drops what has not been written; see finish().
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// Queues a text if there is room for it. Does not block. \return whether it was queued
    bool offer(std::string text);
    /// Queues a text once there is room for it. Returns without it when interrupted or when isBroken().
    void print(std::string text, Interruption& interruption);
    /// Standard output cannot be written any more.
    bool isBroken() const;
    /// Texts that have not been written to their end.
    std::size_t countQueued() const;

    /// Waits until everything has been written, or a second after an interruption. Call it last.
    /// \return Failed if something was not written; standard error has the reason
    ExitCode finish(Interruption& interruption);

private:
    struct State;
    const std::shared_ptr<State> state_; // shared with the thread, which may be blocked for good
};

} // namespace KR::tool
