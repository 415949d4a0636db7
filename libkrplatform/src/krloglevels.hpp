#pragma once

#include "krplatform/krlog.hpp"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace KR {

/// Which records are printed: a level for all categories, and other ones for some. Reentrant.
class KRLogLevels {
public:
    /// Categories that can have a level at most: other processes set them.
    static constexpr std::size_t kMaxCategories = 100;
    static constexpr std::size_t kMaxCategory = 100; ///< bytes of a name

    /// Level of categories without their own, until changed by set().
    void setDefault(KRLogLevel level) noexcept { default_ = level; }
    /// As setLogLevels(). \throws std::invalid_argument as that; nothing has changed then
    void set(std::string_view text);

    KRLogLevel get(std::string_view category) const;
    /// The most verbose of all.
    KRLogLevel getMostVerbose() const noexcept;
    /// As set() takes it: "warning,krdds=verbose".
    std::string toText() const;

private:
    void setOne(std::string_view entry);

    KRLogLevel default_ = KRLogLevel::Info;
    std::optional<KRLogLevel> set_; // in place of default_
    std::map<std::string, KRLogLevel, std::less<>> byCategory_;
};

} // namespace KR
