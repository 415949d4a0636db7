#include "krconversionpath.hpp"

#include <atomic>

namespace KR {

namespace {
std::atomic<const ConversionPath*> forcedPath = nullptr;
} // namespace

std::vector<const ConversionPath*> conversionPaths() {
    auto paths = vectorConversionPaths();
    if (const ConversionPath* avx512 = avx512ConversionPath()) {
        paths.insert(paths.begin(), avx512);
    }
    paths.push_back(&scalarConversionPath);
    return paths;
}

const ConversionPath& conversionPath() {
    if (const ConversionPath* forced = forcedPath.load(std::memory_order_acquire)) {
        return *forced;
    }
    static const ConversionPath& fastest = *conversionPaths().front();
    return fastest;
}

void forceConversionPath(const ConversionPath* path) {
    forcedPath.store(path, std::memory_order_release);
}

} // namespace KR
