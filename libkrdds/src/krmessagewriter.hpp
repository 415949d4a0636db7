#pragma once

#include "krbytes.hpp"
#include "krddsdomain.hpp"

#include <krplatform/krmutex.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace KR {

/// Sends messages to one broker. Keeps each until it is acknowledged, within the engine's bounds. Thread-safe.
///
/// The engine's writer is created when first needed, as each writer costs all other processes memory and messages.
///
/// The engine holds a writer's lock for as long as a write waits for the reader, and deleting the writer waits for that
/// lock. So only one thread enters the engine at a time, briefly, and the others wait here, where they can be
/// woken.
class KRMessageWriter {
public:
    enum class Outcome {
        Sent,
        Closed,
        TimedOut, ///< the other has acknowledged nothing for too long; the message has not been sent
        Refused   ///< by the engine
    };

    /// \param partition  identity of the broker that reads
    /// \param onMatched  called once that broker reads, on a thread of the engine or inside open() and write()
    KRMessageWriter(dds_entity_t participant, dds_entity_t topic, std::string partition,
                    std::function<void()> onMatched);
    ~KRMessageWriter() { close(); }
    KRMessageWriter(const KRMessageWriter&) = delete;
    KRMessageWriter& operator=(const KRMessageWriter&) = delete;

    /// Whether the other has ever been reading.
    bool isMatched() const noexcept { return matched_; }
    /// Whether there is a writer, but the other does not read yet.
    bool isWaitingForReader() const KR_EXCLUDES(mutex_) {
        const KRLock lock(mutex_);
        return opened_ && !matched_;
    }

    /// Creates the engine's writer, if there is none yet. Does not wait for the other broker.
    /// \throws KRError the engine refuses, for example because of this process's permissions
    void open() KR_EXCLUDES(mutex_);

    /// Creates the engine's writer if there is none, and waits until the other reads and has caught up, for at most
    /// `patience`. \throws KRError as open()
    Outcome write(KRComposedBytes message, std::chrono::milliseconds patience) KR_EXCLUDES(mutex_);

    /// Cancels pending writes without waiting for them.
    void interrupt() KR_EXCLUDES(mutex_);
    /// Cancels pending writes and deletes the engine's writer, which takes up to a second if the reader is behind.
    void close() KR_EXCLUDES(mutex_);

private:
    static void onMatched(dds_entity_t, dds_publication_matched_status_t status, void* writer);
    KRDDSEntity createWriter();

    const dds_entity_t participant_;
    const dds_entity_t topic_;
    const std::string partition_;
    const std::function<void()> onMatched_;
    std::atomic<bool> matched_ = false;
    KRDDSEntity writer_; // created and deleted by the thread that set busy_, used while closed_ is not set

    mutable KRMutex mutex_;
    KRCondition changed_;
    bool busy_ KR_GUARDED_BY(mutex_) = false;   // a thread is in the engine
    bool opened_ KR_GUARDED_BY(mutex_) = false; // writer_ has been created
    bool closed_ KR_GUARDED_BY(mutex_) = false;
};

} // namespace KR
