#pragma once

#include <cstdint>
#include <limits>

namespace CLI {
class Validator;
}

namespace KR::tool {

/// Checks that an option is a whole number from `minimum` to `maximum`; for Option::transform(). Every such option needs
/// it: CLI11 alone reads "" as 0, 010 as 8, and -1 as a very large number if the type is unsigned.
CLI::Validator wholeNumber(std::int64_t minimum, std::int64_t maximum = std::numeric_limits<int>::max());

/// Checks that an option is a number from `minimum` to `maximum`, not NaN; for Option::check().
CLI::Validator realNumber(double minimum, double maximum);

} // namespace KR::tool
