#include "camera/krlivecamera.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krthread.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace KR {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds imageTimeout(10);
constexpr steady_clock::duration shortestDelay = std::chrono::milliseconds(250);
constexpr steady_clock::duration longestDelay = std::chrono::seconds(5);

std::string describeTimeout() {
    return "no image within " + std::to_string(imageTimeout.count()) + " s";
}

} // namespace

KRLiveCamera::KRLiveCamera(int index, std::string title, OpenSource open, bool steady)
    : index_(index), title_(std::move(title)), openSource_(std::move(open)), steady_(steady),
      converter_(std::make_shared<KRConverter>()) {}

KRLiveCamera::~KRLiveCamera() {
    close();
}

void KRLiveCamera::open() {
    std::unique_lock lock(mutex_);
    const int opened = timesOpened_;
    const int failed = timesFailed_;
    if (!started_ && !stopping_) {
        started_ = true;
        thread_ = std::thread(&KRLiveCamera::run, this);
    } else if (newest_ && !failure_ && !stopping_) {
        return;
    } else if (failure_) {
        tryNow_ = true;
        changed_.notify_all();
    }
    changed_.wait_for(lock, imageTimeout,
                      [&] { return stopping_ || timesOpened_ != opened || timesFailed_ != failed; });
    if (stopping_) {
        throw std::runtime_error("the camera service is shutting down");
    }
    if (timesOpened_ ==
        opened) { // a source that has ended after its first images has been opened all the same
        throw std::runtime_error(timesFailed_ != failed ? *failure_ : describeTimeout());
    }
}

void KRLiveCamera::want(const KRSize& size) {
    const std::lock_guard lock(mutex_);
    wanted_ = {std::max(wanted_.width, size.width), std::max(wanted_.height, size.height)};
}

void KRLiveCamera::close() {
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
        thread.swap(thread_);
    }
    if (thread.joinable()) {
        thread.join();
    }
    std::shared_ptr<KRFrame> last;
    const std::lock_guard lock(mutex_);
    last = std::exchange(newest_, nullptr);
}

std::shared_ptr<KRFrame> KRLiveCamera::waitForFrame(std::uint64_t after, steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    const auto isThere = [this, after] { return newest_ && newest_->getNumber() > after; };
    changed_.wait_until(lock, deadline, [&] { return stopping_ || failure_ || isThere(); });
    if (stopping_) {
        return nullptr;
    }
    if (isThere()) {
        return newest_;
    }
    if (failure_) {
        throw std::runtime_error(*failure_);
    }
    return nullptr;
}

KRCamera::Status KRLiveCamera::getStatus() const {
    const std::lock_guard lock(mutex_);
    Status status;
    status.state = failure_ ? "failed" : newest_ ? "open" : "opening";
    status.failure = failure_.value_or("");
    if (newest_) {
        status.width = newest_->getWidth();
        status.height = newest_->getHeight();
    }
    return status;
}

void KRLiveCamera::run() {
    setThreadName("KRCamera " + std::to_string(index_));
    steady_clock::duration delay{};
    do {
        const auto start = steady_clock::now();
        delivers_ = false;
        try {
            while (captureFrames()) {
            }
            return;
        } catch (const std::exception& error) {
            noteFailure(error.what());
        }
        const bool ranForLong = delivers_ && steady_clock::now() - start > 2 * delay;
        delay = ranForLong ? shortestDelay : std::clamp(2 * delay, shortestDelay, longestDelay);
    } while (pause(delay));
}

bool KRLiveCamera::captureFrames() {
    std::unique_lock lock(mutex_);
    KRSize wanted = wanted_;
    lock.unlock();
    const std::unique_ptr<KRImageSource> source = openSource_(wanted);
    auto last = steady_clock::now();
    for (;;) {
        lock.lock();
        const bool stopping = stopping_;
        const bool grows = wanted != wanted_;
        wanted = wanted_;
        lock.unlock();
        if (stopping) {
            return false;
        }
        if (grows && !source->suits(wanted)) {
            return true;
        }
        if (std::optional<KRCapture> capture = source->pull()) {
            show(std::move(*capture));
            last = steady_clock::now();
        } else if ((steady_ || !delivers_) && steady_clock::now() - last > imageTimeout) {
            throw std::runtime_error(describeTimeout());
        }
    }
}

void KRLiveCamera::show(KRCapture capture) {
    auto frame = std::make_shared<KRFrame>(++framesCaptured_, capture, converter_);
    const bool opens = !std::exchange(delivers_, true);
    {
        const std::lock_guard lock(mutex_);
        if (opens) {
            failure_.reset();
            ++timesOpened_;
        }
        newest_.swap(frame); // the frame before goes after the lock
    }
    changed_.notify_all(); // without the lock, for which those who wake would have to wait again
    if (opens) {
        logInfo("KRVideoDevice", title_ + " is open");
    }
}

void KRLiveCamera::noteFailure(const std::string& reason) {
    bool known = false;
    {
        const std::lock_guard lock(mutex_);
        known = failure_ == reason;
        failure_ = reason;
        ++timesFailed_;
        changed_.notify_all();
    }
    if (!known) {
        logError("KRVideoDevice", title_ + " has failed: " + reason);
    }
}

bool KRLiveCamera::pause(steady_clock::duration delay) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, delay, [this] { return stopping_ || tryNow_; });
    tryNow_ = false;
    return !stopping_;
}

} // namespace KR
