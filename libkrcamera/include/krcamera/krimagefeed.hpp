#pragma once

#include <krplatform/krexport.hpp>
#include <krvision/krimage.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace KR {

/// Images that a program hands to a KRVideoDevice in place of a camera, those of a recording for instance. Thread-safe.
///
/// The service asks for them on the threads of its subscribers, which may be several at once.
class KR_EXPORT KRImageFeed {
public:
    /// One image on its way to the camera service.
    struct Image {
        std::uint64_t number = 0; ///< counts from 1; 0: there is no image
        /// Its pixels are not changed once it has been handed over. Of a size of the resolutions 0 to 17 and of the colour
        /// space 0, 9, 11, 13 or 18, else a fetch fails.
        std::optional<KRImage> image = {};
        bool isLast = false; ///< the last one: ends a KRRecordingClock of the broker
    };

    KRImageFeed() = default;
    virtual ~KRImageFeed();
    KRImageFeed(const KRImageFeed&) = delete;
    KRImageFeed& operator=(const KRImageFeed&) = delete;

    /// Source shown in the list of cameras.
    virtual std::string getText() const = 0;
    /// Opens the source of the images; called for the first subscriber, and again after the last one has left.
    /// \throws std::exception it cannot be opened; the subscription fails
    virtual void open() = 0;
    /// Waits for an image whose number is greater than `after`.
    /// \return number 0: there is none yet at the deadline
    /// \throws std::exception there are no more; the fetch fails
    virtual Image waitForImage(std::uint64_t after, std::chrono::steady_clock::time_point deadline) = 0;
};

} // namespace KR
