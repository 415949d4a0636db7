#pragma once

#include <krvision/kroxvfile.hpp>

#include <cstdint>
#include <vector>

namespace KR::tool {

/// The cameras of streams, as their images in frame `first` say; the numbers of the streams where these are not distinct.
/// \throws std::runtime_error the file cannot be read
std::vector<int> chooseCameras(const KROxvFile& recording, std::uint64_t first,
                               const std::vector<std::size_t>& streams);

} // namespace KR::tool
