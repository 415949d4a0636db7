#pragma once

#include "krplatform/krvalue.hpp"

#include "krheap.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace KR {

/// Data of a process for the memory module while that is away: the newest value of each key, and the raised events, in
/// order. When full, drops the oldest event, or the oldest value if there are no events. Reentrant.
class KRMemoryBacklog {
public:
    static constexpr std::size_t kMaxBytes = 64 << 20;
    static constexpr std::size_t kMaxEntries = 16384;

    enum class Kind { Value, Event };
    struct Entry {
        Kind kind = Kind::Value;
        std::string name; // key or event
        KRValue value;
        std::size_t bytes = 0;
    };
    struct Counts {
        std::size_t values = 0;
        std::size_t events = 0;
    };

    void add(Kind kind, const std::string& name, const KRValue& value);
    bool isEmpty() const noexcept { return entries_.empty(); }
    bool hasEvents() const noexcept { return !events_.empty(); }
    /// The oldest entry; there is one.
    Entry takeFirst();
    /// Puts back what takeFirst() returned, unless a newer value of its key has come.
    void putBack(Entry entry);

    Counts getCounts() const noexcept { return {newest_.size(), events_.size()}; }
    /// Entries lost since the last call.
    std::size_t takeLost() noexcept;
    /// \return whether enough has been freed to call returnFreedMemory()
    bool takeReturn() noexcept { return heap_.takeReturn(); }

private:
    using Number = std::int64_t; // ascending in the order of adding
    using Entries = std::map<Number, Entry>;

    void insert(Number number, Entry entry);
    Entry extract(Entries::iterator entry);

    Entries entries_;
    std::map<std::string, Number> newest_; // of the values, by key
    std::set<Number> events_;
    KRHeapGauge heap_;
    std::size_t lost_ = 0;
    Number next_ = 0;
    Number taken_ = 0; // number of the entry that takeFirst() returned last
};

} // namespace KR
