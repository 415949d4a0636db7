// Operations of the memory module on several values, and limits of keys and values.

#include "krmemory.hpp"

#include "krplatform/krtext.hpp"

#include <algorithm>
#include <charconv>

namespace KR {

void KRMemory::checkName(const char* method, const std::string& name) {
    constexpr std::size_t kShown = 64;
    if (name.size() > kMaxKeyBytes) {
        throw KRError(kName, method,
                      "a name of " + std::to_string(name.size()) + " bytes, " + escapeText(name, kShown) +
                          "; the most is " + std::to_string(kMaxKeyBytes));
    }
}

void KRMemory::checkData(const char* method, const std::string& key, const KRValue& value) {
    checkName(method, key);
    if (const std::size_t bytes = value.countBytes(); bytes > kMaxValueBytes) {
        throw KRError(kName, method,
                      "the value of " + escapeText(key) + " takes " + std::to_string(bytes) +
                          " bytes; the most is " + std::to_string(kMaxValueBytes));
    }
}

void KRMemory::insertListData(const KRValue& list) {
    constexpr const char* kMethod = "insertListData";
    const auto refuse = [&](std::size_t i) {
        throw KRError(kName, kMethod, "element " + std::to_string(i) + " of the list is not [key, value]");
    };
    std::vector<std::pair<std::string, Stored>>
        entries; // with the previous values, destroyed without the lock
    entries.reserve(list.getSize());
    for (std::size_t i = 0; i < list.getSize(); ++i) {
        const KRValue& entry = list[i];
        if (!entry.isArray() || entry.getSize() != 2 || !entry[0].isString()) {
            refuse(i);
        }
        auto key = entry[0].to<std::string>();
        checkData(kMethod, key, entry[1]);
        entries.emplace_back(std::move(key), Stored{entry[1], entry[1].countBytes()});
    }
    Idle idle;
    std::shared_ptr<const KRMemoryObserver> observer;
    {
        Undelivered lost; // destroyed without the lock
        const KRLock lock(mutex_);
        for (auto& [key, stored] : entries) {
            appendWrite(key, false, stored.value, stored.bytes, lost, idle);
            stored = store(key, std::move(stored));
        }
        observer = observer_;
    }
    if (observer) {
        for (std::size_t i = 0; i < list.getSize(); ++i) {
            (*observer)({false, entries[i].first, list[i][1]});
        }
    }
    entries.clear();
    deliverTo(idle);
    returnMemoryLater();
}

KRValue KRMemory::getDataValues(const std::string& prefix) {
    std::vector<KRValue> values;
    const KRLock lock(mutex_);
    for (auto entry = data_.lower_bound(prefix); entry != data_.end() && entry->first.starts_with(prefix);
         ++entry) {
        values.push_back(KRValue::array(entry->first, entry->second.value));
    }
    return values;
}

KRValue KRMemory::getDataChanges(const std::string& prefix, const std::string& since, int maxBytes) {
    // "INSTANCE-NUMBER"; positions of other memory modules are before all values.
    const std::string own = instance_ + "-";
    std::uint64_t last = 0;
    if (since.starts_with(own)) {
        std::from_chars(since.data() + own.size(), since.data() + since.size(), last);
    }
    const auto limit = static_cast<std::size_t>(std::max(maxBytes, 0));
    std::vector<KRValue> changes;
    const KRLock lock(mutex_);
    for (auto entry = data_.lower_bound(prefix); entry != data_.end() && entry->first.starts_with(prefix);
         ++entry) {
        const Stored& stored = entry->second;
        if (stored.change > last) {
            const KRValue written = toTimestamp(stored);
            changes.push_back(KRValue::array(entry->first, stored.bytes <= limit ? stored.value : KRValue(),
                                             static_cast<int>(stored.bytes), written[0], written[1]));
        }
    }
    return KRValue::array(own + std::to_string(changes_), std::move(changes));
}

} // namespace KR
