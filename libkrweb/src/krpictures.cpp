#include "krpictures.hpp"

#include "krjpeg.hpp"

#include <krinterop/krimagemessage.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krimage.hpp>

#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <vector>

namespace KR::web {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFrameRate = 30; // images per second
constexpr std::chrono::seconds kPictureLinger{
    1}; // after the last receiver, so that a camera is not closed between two stills
constexpr std::chrono::milliseconds kStep{200};

// An image that refers to the pixels of its value, which must outlive it. \throws KRError, std::invalid_argument
KRImage referTo(const KRValue& value) {
    if (!value.isArray() || value.getSize() < 12) {
        throw std::invalid_argument("the camera service has sent a value that is not an image");
    }
    KRImage image(value[0].to<int>(), value[1].to<int>(), value[3].to<int>(), true, 0, 0, 0, 0);
    if (value[2].to<int>() != image.nbLayers) { // KRVideoDeviceProxy has checked the rest
        throw std::invalid_argument("the camera service has sent an image with " +
                                    std::to_string(value[2].to<int>()) + " layers");
    }
    image.timeStamp = std::int64_t{value[4].to<int>()} * 1'000'000 + value[5].to<int>();
    // Only read, deliberate.
    image.data = KRImage::externalData(const_cast<unsigned char*>(value[6].GetBinary().data()));
    return image;
}

} // namespace

/// One subscription to a camera.
class Pictures::Feed {
public:
    Feed(boost::shared_ptr<KRBroker> broker, PictureRequest request)
        : broker_(std::move(broker)), request_(std::move(request)), thread_([this] { run(); }) {}
    ~Feed() {
        {
            const KRLock lock(mutex_);
            stopping_ = true;
            changed_.notifyAll();
        }
        thread_.join();
    }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    const PictureRequest& getRequest() const noexcept { return request_; }
    bool hasEnded() {
        const KRLock lock(mutex_);
        return ended_;
    }
    /// \return nullopt: it has just ended for lack of receivers
    std::optional<std::uint64_t> add(Receiver receiver) {
        const KRLock lock(mutex_);
        if (ended_) {
            return std::nullopt;
        }
        receivers_.emplace(++last_, std::make_shared<const Receiver>(std::move(receiver)));
        failure_.clear(); // the new receiver has not got it yet
        changed_.notifyAll();
        return last_;
    }
    void remove(std::uint64_t number) {
        std::shared_ptr<const Receiver> removed; // destroyed after the lock
        const KRLock lock(mutex_);
        const auto found = receivers_.find(number);
        if (found != receivers_.end()) {
            removed = std::move(found->second);
            receivers_.erase(found);
        }
    }

private:
    void run() noexcept {
        setThreadName("krweb camera " + std::to_string(request_.camera));
        try {
            KRVideoDeviceProxy service(broker_);
            service.setServiceTimeout(
                std::chrono::milliseconds(0)); // this loop waits instead, as it can be stopped
            std::string id;
            while (waitForReceivers()) {
                serve(service, id);
            }
            if (!id.empty()) {
                service.unsubscribe(id);
            }
        } catch (...) {
            logWarning("krweb",
                       "camera " + std::to_string(request_.camera) + ": " + describeCurrentException());
        }
        const KRLock lock(mutex_);
        ended_ = true;
    }

    // \return false: no receivers for a while, or the feed must end
    bool waitForReceivers() {
        KRLock lock(mutex_);
        changed_.waitFor(lock, kPictureLinger, [this] {
            mutex_.assertHeld();
            return stopping_ || !receivers_.empty();
        });
        ended_ = stopping_ || receivers_.empty();
        return !ended_;
    }

    // One picture, or one failure.
    void serve(KRVideoDeviceProxy& service, std::string& id) {
        const auto start = Clock::now();
        try {
            if (!broker_->getSession().waitForService("KRVideoDevice", kStep)) {
                fail("there is no camera service");
                return;
            }
            if (id.empty()) {
                id = service.subscribeCamera("krweb", request_.camera, request_.resolution,
                                             request_.colorSpace, kFrameRate);
            }
            const KRValue value = service.getImageRemote(id);
            const SharedPicture picture = encode(value);
            service.releaseImage(id);
            give(picture);
            return;
        } catch (const KRError& error) {
            fail(error.getDescription());
        } catch (const std::exception& error) {
            fail(error.what());
        }
        const auto next = start + kStep;
        KRLock lock(mutex_);
        changed_.waitUntil(lock, next, [this] {
            mutex_.assertHeld();
            return stopping_;
        });
    }

    SharedPicture encode(const KRValue& value) {
        KRImage image = referTo(value);
        if (!request_.annotations.empty()) {
            image = image.deepCopy(); // the pixels are shared with other subscribers
            draw(image);
        }
        const auto picture = std::make_shared<Picture>();
        picture->timeStamp = std::max<std::int64_t>(image.timeStamp, 0);
        const std::vector<unsigned char> header =
            encodeCompressedImageHeader(picture->timeStamp, request_.camera, "jpeg");
        picture->message.assign(header.begin(), header.end());
        picture->jpegStart = picture->message.size();
        picture->message.reserve(lastSize_ + lastSize_ / 4);
        encoder_.append(picture->message, image, request_.quality);
        lastSize_ = picture->message.size();
        const std::size_t length = lastSize_ - picture->jpegStart;
        for (std::size_t i = 0; i < 4; ++i) {
            picture->message[picture->jpegStart - 4 + i] = static_cast<char>(length >> (8 * i) & 0xFF);
        }
        return picture;
    }

    // Draws the module's latest annotations, if there are any for this camera.
    void draw(KRImage& image) {
        try {
            const auto annotations =
                KRAnnotations::fromKRValue(memory_.getData(request_.annotations + "/Annotations"));
            if (annotations.camera == request_.camera) {
                drawAnnotations(image, annotations);
            }
        } catch (const KRError&) { // NOLINT(bugprone-empty-catch): not there yet
        }
    }

    void fail(const std::string& why) {
        {
            const KRLock lock(mutex_);
            if (failure_ == why) {
                return;
            }
            failure_ = why;
        }
        logWarning("krweb", "camera " + std::to_string(request_.camera) + ": " + why);
        const auto failure = std::make_shared<Picture>();
        failure->failure = why;
        hand(failure);
    }
    void give(const SharedPicture& picture) {
        {
            const KRLock lock(mutex_);
            failure_.clear();
        }
        hand(picture);
    }
    void hand(const SharedPicture& picture) {
        std::vector<std::shared_ptr<const Receiver>> receivers;
        {
            const KRLock lock(mutex_);
            for (const auto& [number, receiver] : receivers_) {
                receivers.push_back(receiver);
            }
        }
        for (const auto& receiver : receivers) {
            (*receiver)(picture);
        }
    }

    const boost::shared_ptr<KRBroker> broker_;
    const PictureRequest request_;
    KRMemoryProxy memory_{broker_};
    JpegEncoder encoder_;      // of the thread
    std::size_t lastSize_ = 0; // bytes; of the thread
    KRMutex mutex_;
    KRCondition changed_;
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
    bool ended_ KR_GUARDED_BY(mutex_) = false;  // takes no receivers any more
    std::string failure_ KR_GUARDED_BY(mutex_); // last reported
    std::uint64_t last_ KR_GUARDED_BY(mutex_) = 0;
    std::map<std::uint64_t, std::shared_ptr<const Receiver>> receivers_ KR_GUARDED_BY(mutex_);
    std::thread thread_; // last: it uses the other members
};

void Pictures::stop() {
    std::list<std::shared_ptr<Feed>> feeds; // end without the lock
    const KRLock lock(mutex_);
    feeds.swap(feeds_);
}

std::unique_ptr<Pictures::Viewing> Pictures::view(const PictureRequest& request, Receiver receiver) {
    std::list<std::shared_ptr<Feed>> ended; // destroyed after the lock; their threads are done
    const KRLock lock(mutex_);
    for (auto feed = feeds_.begin(); feed != feeds_.end();) {
        const auto here = feed++;
        if ((*here)->getRequest() == request) {
            if (const auto number = (*here)->add(receiver)) {
                return std::make_unique<Viewing>(*here, *number);
            }
        }
        if ((*here)->hasEnded()) {
            ended.splice(ended.end(), feeds_, here);
        }
    }
    if (feeds_.size() >= kMaxFeeds) {
        return nullptr;
    }
    for (;;) {
        const auto feed = std::make_shared<Feed>(broker_, request);
        if (const auto number = feed->add(receiver)) { // unless this thread has slept for long
            feeds_.push_back(feed);
            return std::make_unique<Viewing>(feed, *number);
        }
    }
}

Pictures::Viewing::~Viewing() {
    feed_->remove(number_);
}

} // namespace KR::web
