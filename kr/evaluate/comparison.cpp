#include "evaluate/comparison.hpp"

#include "system/valuejson.hpp"

#include <krplatform/krtext.hpp>

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>

namespace KR::tool {

namespace {

// Enough of a value to recognise it.
std::string show(const std::vector<Json>& values) {
    constexpr std::size_t kLongest = 160;
    std::string text;
    for (const Json& value : values) {
        text += (text.empty() ? "" : ", then ") + formatJson(value);
    }
    return text.empty() ? "nothing" : escapeText(text, kLongest);
}

} // namespace

bool isSame(const Json& a, const Json& b, double tolerance) {
    if (a.is_number() && b.is_number()) {
        return a == b || std::abs(a.get<double>() - b.get<double>()) <= tolerance;
    }
    if (a.is_array() && b.is_array()) {
        return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                          [&](const Json& x, const Json& y) { return isSame(x, y, tolerance); });
    }
    return a == b;
}

Comparison::Comparison(const std::string& path, double tolerance)
    : path_(path), tolerance_(tolerance), file_(path) {
    if (!file_) {
        throw std::runtime_error(path + ": cannot be read");
    }
    readNext();
}

void Comparison::fail(const std::string& why) const {
    throw std::runtime_error(path_ + ", line " + std::to_string(line_) + ": " + why);
}

void Comparison::readNext() {
    const std::uint64_t before = next_ ? next_->frame : 0;
    next_.reset();
    std::string line;
    while (next_ == std::nullopt && std::getline(file_, line)) {
        ++line_;
        if (!line.empty()) {
            try {
                next_ = parseResult(line);
            } catch (const std::invalid_argument& error) {
                fail(error.what());
            }
        }
    }
    if (file_.bad()) {
        throw std::runtime_error(path_ + ": cannot be read");
    }
    if (next_ && next_->frame < before) {
        fail("frame " + std::to_string(next_->frame) + " comes after frame " + std::to_string(before));
    }
}

void Comparison::beginFrame(std::uint64_t frame, int, int, int) {
    compareUntil(frame);
}

void Comparison::take(const Result& result) {
    frame_ = result.frame;
    // Round trip through JSON, like the expected ones: for example, an infinite float becomes null.
    actual_[{result.isEvent, result.name}].push_back(parseResult(formatResult(result)).value);
}

void Comparison::finish() {
    compareUntil(std::nullopt);
}

void Comparison::compareUntil(std::optional<std::uint64_t> end) {
    for (;;) {
        // The first frame for which either has results.
        std::optional<std::uint64_t> frame = actual_.empty() ? std::nullopt : std::optional(frame_);
        if (next_ && (!end || next_->frame < *end)) {
            frame = std::min(frame.value_or(next_->frame), next_->frame);
        }
        if (!frame) {
            return;
        }
        Said expected;
        while (next_ && next_->frame == *frame) {
            expected[{next_->isEvent, next_->name}].push_back(std::move(next_->value));
            readNext();
        }
        Said actual;
        if (frame_ == *frame) {
            actual.swap(actual_);
        }
        compare(*frame, expected, actual);
    }
}

void Comparison::compare(std::uint64_t frame, const Said& expected, const Said& actual) {
    std::set<std::pair<bool, std::string>> all;
    for (const Said* said : {&expected, &actual}) {
        for (const auto& [what, values] : *said) {
            all.insert(what);
        }
    }
    const std::uint64_t before = differences_;
    const auto get = [](const Said& said, const std::pair<bool, std::string>& what) {
        const auto found = said.find(what);
        return found == said.end() ? std::vector<Json>() : found->second;
    };
    for (const auto& what : all) {
        compare(frame, what, get(expected, what), get(actual, what));
    }
    frames_ += differences_ > before ? 1 : 0;
}

void Comparison::compare(std::uint64_t frame, const std::pair<bool, std::string>& what,
                         const std::vector<Json>& expected, const std::vector<Json>& actual) {
    const bool same = std::equal(expected.begin(), expected.end(), actual.begin(), actual.end(),
                                 [this](const Json& a, const Json& b) { return isSame(a, b, tolerance_); });
    if (same) {
        return;
    }
    if (++differences_ <= kMostShown) {
        shown_.push_back("frame " + std::to_string(frame) + ", " + (what.first ? "event " : "") +
                         escapeText(what.second) + ": expected " + show(expected) + ", got " + show(actual));
    }
}

} // namespace KR::tool
