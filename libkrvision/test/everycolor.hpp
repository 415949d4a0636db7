#pragma once

#include "krconversionpath.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace KR::test {

/// Bytes that are the same for the same seed.
std::vector<unsigned char> randomBytes(std::size_t size, unsigned seed);
/// Names the tests of a path.
std::string nameOf(const testing::TestParamInfo<const ConversionPath*>& path);

// Every colour through one path, compared with the formulas. Apart from the tests, as only this needs optimising.

/// The number of pairs that are converted wrongly: every BGR colour as first pixel, and in another order as second.
std::size_t countWrongBgrColors(const ConversionPath& path);
/// The same for every YUV colour.
std::size_t countWrongYuvColors(const ConversionPath& path);

} // namespace KR::test
