#pragma once

#include <cstdint>
#include <limits>

namespace CLI {
class Validator;
}

namespace KR::tool {

/// What an option takes that is a whole number from `minimum` to `maximum`; for Option::transform(). Every option that
/// is one needs it: CLI11 alone takes "" for 0, 010 for 8, and -1 for a very large number where there is no sign.
CLI::Validator wholeNumber(std::int64_t minimum, std::int64_t maximum = std::numeric_limits<int>::max());

/// What an option takes that is a number from `minimum` to `maximum`, which NaN is not; for Option::check().
CLI::Validator realNumber(double minimum, double maximum);

} // namespace KR::tool
