#include "tool/watchoptions.hpp"

namespace KR::tool {

void WatchOptions::declare(Arguments& arguments, const std::string& things, const std::string& form) {
    constexpr double kLongest_s = 1e7; // some months
    arguments.add("--count", count, "number of " + things + " to print before it ends").wholeNumber(1);
    arguments.add("--seconds", seconds, "duration (default: until Ctrl-C)").realNumber(0.01, kLongest_s);
    arguments.addFlag("--json", json, "output as " + form);
}

WatchOptions::Clock::time_point WatchOptions::getEnd() const {
    return seconds > 0
               ? Clock::now() +
                     std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))
               : Clock::time_point::max();
}

} // namespace KR::tool
