#include "krplatform/krnearestnames.hpp"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <set>
#include <utility>

namespace KR {

namespace {

constexpr std::size_t kLongest = 64; // bytes that are compared: names come from other processes

std::string simplify(std::string_view name) {
    std::string lower(name.substr(0, kLongest));
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

// Levenshtein, "Binary codes capable of correcting deletions, insertions and reversals" (1966), row by row.
std::size_t countEdits(const std::string& from, const std::string& to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t k = 0; k < to.size(); ++k) {
            const std::size_t replaced = diagonal + (from[i] == to[k] ? 0 : 1);
            diagonal = row[k + 1];
            row[k + 1] = std::min({replaced, row[k] + 1, row[k + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

std::vector<std::string> findNearestNames(std::string_view name, const std::vector<std::string>& names,
                                          std::size_t count) {
    const std::string wanted = simplify(name);
    std::set<std::pair<std::pair<bool, std::size_t>, std::string>> ranked; // nearest first, then by name
    for (const std::string& each : names) {
        const std::string known = simplify(each);
        const bool isPart = !wanted.empty() && (known.find(wanted) != std::string::npos ||
                                                wanted.find(known) != std::string::npos);
        ranked.insert({{!isPart, countEdits(wanted, known)}, each});
    }
    std::vector<std::string> nearest;
    for (const auto& [rank, each] : ranked) {
        if (nearest.size() == count) {
            break;
        }
        nearest.push_back(each);
    }
    return nearest;
}

} // namespace KR
