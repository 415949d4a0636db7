#pragma once

#include "camera/krcapture.hpp"
#include "gstreamer/krgstreamer.hpp"

#include <krplatform/krmutex.hpp>
#include <krplatform/krvalue.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <utility>

namespace KR {

class KRConverter;

/// One image of a camera, for all subscribers. Thread-safe.
class KRFrame {
public:
    /// \param number  counts the frames of its camera, from 1
    /// \throws std::runtime_error  the buffer cannot be read
    KRFrame(std::uint64_t number, const KRCapture& capture, std::shared_ptr<KRConverter> converter);
    ~KRFrame();
    KRFrame(const KRFrame&) = delete;
    KRFrame& operator=(const KRFrame&) = delete;

    std::uint64_t getNumber() const noexcept { return number_; }
    std::int64_t getCaptureTime() const noexcept { return captureTime_usec_; } ///< microseconds, Unix epoch
    std::chrono::steady_clock::time_point getTaken() const noexcept { return taken_; }
    const KRAngles& getAngles() const noexcept { return angles_; }
    /// Size as delivered by the camera, pixels.
    int getWidth() const noexcept;
    int getHeight() const noexcept;

    /// The pixels in a supported resolution and colour space, rows without padding: the camera's memory if it
    /// has exactly this layout. Otherwise the first call converts them for all later ones.
    /// \throws std::runtime_error  they cannot be converted
    /// \throws std::bad_alloc
    KRBinary getPixels(int resolution, int colorSpace);

private:
    /// Keeps the camera's buffer mapped.
    struct Mapping;
    struct Converted {
        KRMutex mutex; ///< held during the conversion
        bool done KR_GUARDED_BY(mutex) = false;
        KRBinary pixels KR_GUARDED_BY(mutex);
    };

    bool isDelivered(const GstVideoInfo& wanted) const noexcept;

    const std::uint64_t number_;
    const std::int64_t captureTime_usec_;
    const std::chrono::steady_clock::time_point taken_;
    const KRAngles angles_;
    const boost::shared_ptr<Mapping> mapping_;
    const std::shared_ptr<KRConverter> converter_;
    KRMutex mutex_; ///< not held during a conversion
    /// By resolution and colour space.
    std::map<std::pair<int, int>, std::shared_ptr<Converted>> converted_ KR_GUARDED_BY(mutex_);
};

} // namespace KR
