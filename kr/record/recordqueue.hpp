#pragma once

#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>
#include <krvision/krimage.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace KR::tool {

/// One item to record: an image, a value in the memory, or an event.
struct Recorded {
    enum class Kind { Image, Value, Event };
    Kind kind = Kind::Value;
    int camera = 0;   ///< of an image
    std::string name; ///< of the key or event
    std::optional<KRImage> image = {};
    KRValue value = {};
    std::uint64_t time =
        0; ///< when it came, nanoseconds since the Unix epoch; that of an image is its capture time

    std::string getTopic() const;
    std::size_t countBytes() const;
};

/// Queue for the disk, limited in bytes. Data that does not fit is dropped and counted by topic. Thread-safe.
class RecordQueue {
public:
    struct Count {
        std::uint64_t came = 0; ///< and was kept
        std::uint64_t missed = 0;
    };
    using Counts = std::map<std::string, Count>; // by topic

    /// \param capacity  bytes; a single larger item is accepted if the queue is empty
    explicit RecordQueue(std::size_t capacity) : capacity_(capacity) {}

    /// Queues an item if there is room for it. Does not block.
    void offer(Recorded recorded);
    /// Items of a topic were lost before they arrived here.
    void noteMissed(const std::string& topic, std::uint64_t count);
    /// A source was away for a while; the number of missed items is unknown.
    void noteInterruption();
    /// The oldest item. Waits for one until the deadline. \return nullopt: none, or closed and empty
    std::optional<Recorded> take(std::chrono::steady_clock::time_point deadline);
    /// Accepts no more items.
    void close();
    /// closed, and nothing waits
    bool isOver() const;

    Counts getCounts() const;
    std::uint64_t countInterruptions() const;
    std::size_t countWaitingBytes() const;

private:
    const std::size_t capacity_;
    mutable KRMutex mutex_;
    KRCondition changed_;
    std::deque<Recorded> waiting_ KR_GUARDED_BY(mutex_);
    std::size_t bytes_ KR_GUARDED_BY(mutex_) = 0;
    bool closed_ KR_GUARDED_BY(mutex_) = false;
    Counts counts_ KR_GUARDED_BY(mutex_);
    std::uint64_t interruptions_ KR_GUARDED_BY(mutex_) = 0;
};

} // namespace KR::tool
