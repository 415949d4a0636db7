#include "replay/replayfeed.hpp"

#include <utility>

namespace KR::tool {

void ReplayFeed::publish(const KRImage& image) {
    const KRLock lock(mutex_);
    ++number_;
    newest_ = image;
    changed_.notifyAll();
}

KRImageFeed::Image ReplayFeed::waitForImage(std::uint64_t after,
                                            std::chrono::steady_clock::time_point deadline) {
    KRLock lock(mutex_);
    const bool isThere = changed_.waitUntil(lock, deadline, [&] {
        mutex_.assertHeld();
        return number_ > after;
    });
    return isThere ? Image{number_, newest_, false} : Image{};
}

} // namespace KR::tool
