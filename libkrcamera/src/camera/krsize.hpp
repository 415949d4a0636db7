#pragma once

namespace KR {

/// Width and height, pixels.
struct KRSize {
    int width = 0;
    int height = 0;

    friend bool operator==(const KRSize&, const KRSize&) = default;
};

} // namespace KR
