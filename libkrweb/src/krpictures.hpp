#pragma once

#include <krplatform/krbroker.hpp>
#include <krplatform/krmutex.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <compare>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace KR::web {

/// A request for pictures.
struct PictureRequest {
    static constexpr int kDefaultQuality = 80;

    int camera = 0;
    int resolution = kVGA;              ///< code
    int colorSpace = kYUV422ColorSpace; ///< in which the image is fetched: one that has a JPEG
    int quality = kDefaultQuality;      ///< 1 to 100
    std::string annotations = {};       ///< module whose annotations are drawn into it; "": none

    // clang-tidy takes the 0 that the compiler compares with for a pointer.
    friend auto operator<=>(const PictureRequest&,
                            const PictureRequest&) = default; // NOLINT(modernize-use-nullptr)
};

/// An image as JPEG, or the reason why there is none. Immutable.
struct Picture {
    std::string message; ///< `sensor_msgs/msg/CompressedImage` in CDR; its end is the JPEG; empty: no picture
    std::size_t jpegStart = 0;  ///< in `message`
    std::int64_t timeStamp = 0; ///< capture time, microseconds
    std::string failure;

    std::string_view getJpeg() const { return std::string_view(message).substr(jpegStart); }
};
using SharedPicture = std::shared_ptr<const Picture>;

/// The pictures of all cameras. Each distinct request has one subscription and one thread, shared by all its receivers, so an
/// image is encoded once. They end a second after the last receiver has left. Waits for an absent camera service.
/// Thread-safe.
class Pictures {
public:
    /// Distinct requests at the same time, each with its own thread and encoder.
    static constexpr std::size_t kMaxFeeds = 32;

    /// Called with each picture on a thread of its feed, with no lock held; must not throw. Failures are passed when they
    /// change.
    using Receiver = std::function<void(const SharedPicture&)>;

    explicit Pictures(boost::shared_ptr<KRBroker> broker) : broker_(std::move(broker)) {}
    ~Pictures() { stop(); }
    Pictures(const Pictures&) = delete;
    Pictures& operator=(const Pictures&) = delete;

    /// Receives pictures as long as it exists. The receiver may still be called a little later.
    class Viewing;
    /// \return null: there are kMaxFeeds others already
    std::unique_ptr<Viewing> view(const PictureRequest& request, Receiver receiver);

    /// Ends all feeds once their viewings have ended. Waits for images that are being fetched.
    void stop();

private:
    class Feed;

    const boost::shared_ptr<KRBroker> broker_;
    KRMutex mutex_;
    std::list<std::shared_ptr<Feed>> feeds_ KR_GUARDED_BY(mutex_);
};

class Pictures::Viewing {
public:
    Viewing(std::shared_ptr<Feed> feed, std::uint64_t number) : feed_(std::move(feed)), number_(number) {}
    ~Viewing();
    Viewing(const Viewing&) = delete;
    Viewing& operator=(const Viewing&) = delete;

private:
    const std::shared_ptr<Feed> feed_;
    const std::uint64_t number_;
};

} // namespace KR::web
