#pragma once

#include "tool/arguments.hpp"

#include <chrono>
#include <string>

namespace KR::tool {

/// The options of a verb that prints things as they come: --json, --count and --seconds.
struct WatchOptions {
    using Clock = std::chrono::steady_clock;

    bool json = false;
    int count = 0;      ///< things to print before it ends; 0: no limit
    double seconds = 0; ///< duration; 0: until Ctrl-C

    /// \param things  that are counted, such as "images"
    /// \param form    of the output with --json, such as "a JSON object per image"
    void declare(Arguments& arguments, const std::string& things, const std::string& form);

    /// Whether that many are enough.
    bool isEnough(int printed) const noexcept { return count > 0 && printed >= count; }
    /// When it ends if it starts now.
    Clock::time_point getEnd() const;
};

} // namespace KR::tool
