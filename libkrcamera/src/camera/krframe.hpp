#pragma once

#include "camera/krcapture.hpp"
#include "conversion/krconverter.hpp"
#include "gstreamer/krgstreamer.hpp"

#include <krplatform/krvalue.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace KR {

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
    /// As the camera delivers it, pixels.
    int getWidth() const noexcept;
    int getHeight() const noexcept;

    /// The pixels in a supported resolution and colour space, rows without padding. The camera's own memory
    /// if that holds just these; otherwise they are converted at the first call and the same for everyone
    /// after. \throws std::runtime_error  they cannot be converted
    KRBinary getPixels(int resolution, int colorSpace);

private:
    /// The camera's buffer, readable for as long as this exists.
    struct Mapping;
    struct Converted {
        std::mutex mutex;
        bool done = false; ///< guarded by mutex, which is held during the conversion
        KRBinary pixels;   ///< guarded by mutex
    };

    bool isDelivered(const GstVideoInfo& wanted) const noexcept;

    const std::uint64_t number_;
    const std::int64_t captureTime_usec_;
    const std::chrono::steady_clock::time_point taken_;
    const KRAngles angles_;
    const boost::shared_ptr<Mapping> mapping_;
    const std::shared_ptr<KRConverter> converter_;
    std::mutex mutex_;
    /// By resolution and colour space; guarded by mutex_, which is not held during a conversion.
    std::map<std::pair<int, int>, std::shared_ptr<Converted>> converted_;
};

} // namespace KR
