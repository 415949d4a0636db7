#pragma once

#include "camera/krcapture.hpp"
#include "camera/krsize.hpp"

#include <optional>

namespace KR {

/// A running source of images: it starts in its constructor and stops in its destructor. Thread-bound: created, used
/// and destroyed on one thread.
class KRImageSource {
public:
    KRImageSource() = default;
    virtual ~KRImageSource() = default;
    KRImageSource(const KRImageSource&) = delete;
    KRImageSource& operator=(const KRImageSource&) = delete;

    /// The newest image not pulled yet, or nullopt if there was none within 50 ms.
    /// \throws std::runtime_error  the source has failed or ended, and all its images have been pulled
    virtual std::optional<KRCapture> pull() = 0;

    /// Whether the source would deliver the same images if it were opened for pictures of this size.
    virtual bool suits(const KRSize& /*wanted*/) const { return true; }
};

} // namespace KR
