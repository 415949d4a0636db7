#include "video/streamcameras.hpp"

#include <set>

namespace KR::tool {

std::vector<int> chooseCameras(const KROxvFile& recording, std::uint64_t first,
                               const std::vector<std::size_t>& streams) {
    std::vector<int> cameras;
    std::set<int> distinct;
    for (const std::size_t stream : streams) {
        cameras.push_back(recording.readChunkHeader(first, stream).cameraId);
        distinct.insert(cameras.back());
    }
    if (distinct.size() < cameras.size() || *distinct.begin() < 0) {
        cameras.assign(streams.begin(), streams.end());
    }
    return cameras;
}

} // namespace KR::tool
