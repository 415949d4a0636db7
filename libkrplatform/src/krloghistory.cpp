#include "krloghistory.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>

#include <unistd.h>

namespace KR {

KRLogHistory::KRLogHistory()
    : process_(std::to_string(::getpid()) + "." +
               std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + ":") {}

std::size_t KRLogHistory::getSize(const KRLogRecord& record) noexcept {
    return sizeof record + record.category.size() + record.message.size() + record.thread.size();
}

void KRLogHistory::add(const KRLogRecord& record) {
    KRLogRecord kept = record;
    kept.message.resize(std::min(kept.message.size(), kMaxMessage));
    kept.category.resize(std::min(kept.category.size(), kMaxMessage));
    const KRLock lock(mutex_);
    bytes_ += getSize(kept);
    records_.push_back(std::move(kept));
    ++added_;
    while (bytes_ > kMaxBytes) {
        bytes_ -= getSize(records_.front());
        records_.pop_front();
    }
}

KRLogExcerpt KRLogHistory::read(const std::string& since) const {
    const KRLock lock(mutex_);
    std::uint64_t seen = 0;
    const std::string_view number = std::string_view(since).substr(std::min(process_.size(), since.size()));
    const bool isMine =
        since.starts_with(process_) &&
        std::from_chars(number.data(), number.data() + number.size(), seen).ec == std::errc() &&
        seen <= added_;
    const std::uint64_t firstKept = added_ - records_.size();
    const std::uint64_t first = isMine ? std::max(seen, firstKept) : firstKept;
    return {process_ + std::to_string(added_),
            isMine ? first - seen : 0,
            {records_.begin() + static_cast<std::ptrdiff_t>(first - firstKept), records_.end()}};
}

} // namespace KR
