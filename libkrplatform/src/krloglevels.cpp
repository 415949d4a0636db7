#include "krloglevels.hpp"

#include "krplatform/krlogformat.hpp"
#include "krplatform/krtext.hpp"

#include <algorithm>
#include <stdexcept>

namespace KR {

namespace {

KRLogLevel parseLevel(std::string_view name) {
    if (name == "debug") { // the common name elsewhere
        return KRLogLevel::Verbose;
    }
    const auto found = std::ranges::find(kLogLevelNames, name);
    if (found != kLogLevelNames.end()) {
        return static_cast<KRLogLevel>(found - kLogLevelNames.begin());
    }
    throw std::invalid_argument("\"" + escapeText(name, 100) +
                                "\" is not a level of the log; levels are error, warning, info, verbose");
}

} // namespace

void checkLogLevels(std::string_view levels) {
    KRLogLevels().set(levels);
}

void KRLogLevels::set(std::string_view text) {
    KRLogLevels changed = *this;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find(',', start), text.size());
        changed.setOne(text.substr(start, end - start));
        start = end + 1;
    }
    *this = std::move(changed);
}

void KRLogLevels::setOne(std::string_view entry) {
    const std::size_t equals = entry.find('=');
    if (equals == std::string_view::npos) {
        set_ = parseLevel(entry);
        byCategory_.clear();
        return;
    }
    const std::string_view category = entry.substr(0, equals);
    const KRLogLevel level = parseLevel(entry.substr(equals + 1));
    if (category.empty() || category.size() > kMaxCategory) {
        throw std::invalid_argument("\"" + escapeText(entry, 100) +
                                    "\" does not name a category of the log, such as krdds=verbose");
    }
    const auto known = byCategory_.find(category);
    if (known != byCategory_.end()) {
        known->second = level;
        return;
    }
    if (byCategory_.size() == kMaxCategories) {
        throw std::invalid_argument(std::to_string(kMaxCategories) +
                                    " categories of the log have a level already; a level alone, such as "
                                    "info, removes them");
    }
    byCategory_.emplace(category, level);
}

KRLogLevel KRLogLevels::get(std::string_view category) const {
    while (!byCategory_.empty()) {
        const auto found = byCategory_.find(category);
        if (found != byCategory_.end()) {
            return found->second;
        }
        const std::size_t dot = category.rfind('.');
        if (dot == std::string_view::npos) {
            break;
        }
        category = category.substr(0, dot);
    }
    return set_.value_or(default_);
}

KRLogLevel KRLogLevels::getMostVerbose() const noexcept {
    KRLogLevel most = set_.value_or(default_);
    for (const auto& [category, level] : byCategory_) {
        most = std::max(most, level);
    }
    return most;
}

std::string KRLogLevels::toText() const {
    std::string text = getLogLevelName(set_.value_or(default_));
    for (const auto& [category, level] : byCategory_) {
        text += "," + category + "=" + getLogLevelName(level);
    }
    return text;
}

} // namespace KR
