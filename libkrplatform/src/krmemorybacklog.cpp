#include "krmemorybacklog.hpp"

#include <cassert>
#include <utility>

namespace KR {

void KRMemoryBacklog::add(Kind kind, const std::string& name, const KRValue& value) {
    Entry entry{kind, name, value, sizeof(Entries::value_type) + name.size() + value.countBytes()};
    if (kind == Kind::Value) {
        const auto older = newest_.find(name);
        if (older != newest_.end()) {
            extract(entries_.find(older->second));
        }
    }
    if (entry.bytes > kMaxBytes) {
        ++lost_;
        return;
    }
    while (heap_.getHeld() + entry.bytes > kMaxBytes || entries_.size() >= kMaxEntries) {
        extract(events_.empty() ? entries_.begin() : entries_.find(*events_.begin()));
        ++lost_;
    }
    insert(next_++, std::move(entry));
}

void KRMemoryBacklog::insert(Number number, Entry entry) {
    heap_.add(entry.bytes);
    if (entry.kind == Kind::Value) {
        newest_[entry.name] = number;
    } else {
        events_.insert(number);
    }
    entries_.emplace(number, std::move(entry));
}

KRMemoryBacklog::Entry KRMemoryBacklog::extract(Entries::iterator entry) {
    assert(entry != entries_.end());
    heap_.remove(entry->second.bytes);
    if (entry->second.kind == Kind::Value) {
        newest_.erase(entry->second.name);
    } else {
        events_.erase(entry->first);
    }
    Entry extracted = std::move(entry->second);
    entries_.erase(entry);
    return extracted;
}

KRMemoryBacklog::Entry KRMemoryBacklog::takeFirst() {
    taken_ = entries_.begin()->first;
    return extract(entries_.begin());
}

void KRMemoryBacklog::putBack(Entry entry) {
    if (entry.kind == Kind::Value && newest_.contains(entry.name)) {
        return;
    }
    insert(taken_, std::move(entry));
}

std::size_t KRMemoryBacklog::takeLost() noexcept {
    return std::exchange(lost_, 0);
}

} // namespace KR
