#pragma once

#include "krconversionpath.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace KR::test {

/// Random bytes, the same for the same seed.
std::vector<unsigned char> randomBytes(std::size_t size, unsigned seed);
/// Names a path's tests.
std::string nameOf(const testing::TestParamInfo<const ConversionPath*>& path);

// Compare every colour on one path with the formulas. In a separate source: only this needs optimisation.

/// Counts the pairs converted wrongly: every BGR colour as first pixel, and in another order as second.
std::size_t countWrongBgrColors(const ConversionPath& path);
/// The same for every YUV colour.
std::size_t countWrongYuvColors(const ConversionPath& path);

} // namespace KR::test
