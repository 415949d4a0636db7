#pragma once

#include "krconversionpath.hpp"

#include <cstddef>

// Every colour through one path, compared with the formulas. Apart from the tests, as only this needs optimising.
namespace KR::test {

/// The number of pairs that are converted wrongly: every BGR colour as first pixel, and in another order as second.
std::size_t countWrongBgrColors(const ConversionPath& path);
/// The same for every YUV colour.
std::size_t countWrongYuvColors(const ConversionPath& path);

} // namespace KR::test
