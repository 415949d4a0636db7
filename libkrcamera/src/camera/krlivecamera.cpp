#include "camera/krlivecamera.hpp"

#include "camera/krframe.hpp"
#include "camera/krretrydelay.hpp"
#include "conversion/krconverter.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace KR {

namespace {

constexpr std::chrono::hours stableTime(1); // a failure after that is logged like a first one
constexpr std::size_t maximumReasons = 8;

} // namespace

KRLiveCamera::KRLiveCamera(int index, std::string title, OpenSource open, Silence silence)
    : index_(index), title_(std::move(title)), openSource_(std::move(open)), silence_(std::move(silence)),
      converter_(std::make_shared<KRConverter>()) {}

KRLiveCamera::~KRLiveCamera() {
    close();
}

void KRLiveCamera::open() {
    KRLock lock(mutex_);
    const int opened = timesOpened_;
    const int failed = timesFailed_;
    if (!started_ && !stopping_) {
        thread_ = std::thread(&KRLiveCamera::run, this);
        started_ = true;
    } else if (newest_ && !failure_ && !stopping_) {
        return;
    } else if (failure_) {
        tryNow_ = true;
        changed_.notifyAll();
    }
    changed_.waitFor(lock, silence_.limit, [&] {
        mutex_.assertHeld();
        return stopping_ || timesOpened_ != opened || timesFailed_ != failed;
    });
    if (stopping_) {
        throw std::runtime_error("the camera service is shutting down");
    }
    if (timesOpened_ == opened) { // a source that ended after its first images counts as opened
        throw std::runtime_error(timesFailed_ != failed ? *failure_ : describeSilence());
    }
}

void KRLiveCamera::want(const KRSize& size) {
    const KRLock lock(mutex_);
    wanted_ = {std::max(wanted_.width, size.width), std::max(wanted_.height, size.height)};
}

void KRLiveCamera::close() {
    std::thread thread;
    {
        const KRLock lock(mutex_);
        stopping_ = true;
        changed_.notifyAll();
        thread.swap(thread_);
    }
    if (thread.joinable()) {
        thread.join();
    }
    std::shared_ptr<KRFrame> last; // released after the lock
    const KRLock lock(mutex_);
    last = std::exchange(newest_, nullptr);
}

std::shared_ptr<KRFrame> KRLiveCamera::waitForFrame(std::uint64_t after, Clock::time_point deadline) {
    KRLock lock(mutex_);
    const auto isThere = [this, after] {
        mutex_.assertHeld();
        return newest_ && newest_->getNumber() > after;
    };
    changed_.waitUntil(lock, deadline, [&] {
        mutex_.assertHeld();
        return stopping_ || failure_ || isThere();
    });
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
    const KRLock lock(mutex_);
    Status status;
    status.state = failure_ ? "failed" : newest_ ? "open" : "opening";
    status.failure = failure_.value_or("");
    if (newest_) {
        status.width = newest_->getWidth();
        status.height = newest_->getHeight();
    }
    return status;
}

void KRLiveCamera::run() noexcept {
    try {
        setThreadName("KRCamera " + std::to_string(index_));
    } catch (const std::exception&) {
        // A missing thread name does no harm.
    }
    KRRetryDelay delay;
    Clock::duration delivered{};
    do {
        const auto start = Clock::now();
        delivers_ = false;
        try {
            while (captureFrames()) {
            }
            return;
        } catch (...) {
            delivered = delivers_ ? Clock::now() - start : Clock::duration();
            noteFailure(delivered);
        }
    } while (pause(delay.next(delivered)));
}

bool KRLiveCamera::captureFrames() {
    KRLock lock(mutex_);
    KRSize wanted = wanted_;
    lock.unlock();
    const std::unique_ptr<KRImageSource> source = openSource_(wanted);
    auto last = Clock::now();
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
            setNewest(std::move(*capture));
            last = Clock::now();
        } else if (Clock::now() - last > silence_.limit) {
            noteSilence(last);
        }
    }
}

void KRLiveCamera::setNewest(KRCapture capture) {
    auto frame = std::make_shared<KRFrame>(++framesCaptured_, capture, converter_);
    const bool opens = !std::exchange(delivers_, true);
    {
        const KRLock lock(mutex_);
        if (opens) {
            failure_.reset();
            ++timesOpened_;
        }
        newest_.swap(frame); // the previous frame is released after the lock
    }
    changed_.notifyAll(); // without the lock, which the waiting threads need
    if (opens && std::exchange(logsOpening_, false)) {
        logInfo("KRVideoDevice", title_ + " is open");
    }
}

void KRLiveCamera::noteSilence(Clock::time_point since) {
    if (silence_.isFailure || !delivers_) {
        throw std::runtime_error(describeSilence());
    }
    if (silenceLimit_.admit(Clock::now())) {
        const auto silent = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - since);
        logWarning("KRVideoDevice",
                   title_ + " has delivered no image for " + std::to_string(silent.count()) + " s");
    }
}

void KRLiveCamera::noteFailure(Clock::duration delivered) noexcept {
    std::string reason;
    try {
        reason = describeCurrentException();
    } catch (const std::bad_alloc&) {
        reason = "out of memory"; // short enough to need no allocation
    }
    {
        const KRLock lock(mutex_);
        failure_.emplace().swap(reason);
        reason.clear();
        ++timesFailed_;
        changed_.notifyAll();
    }
    try {
        logFailure(getStatus().failure, delivered);
    } catch (const std::exception&) {
        // The failure shows in the state.
    }
}

void KRLiveCamera::logFailure(const std::string& reason, Clock::duration delivered) {
    if (delivered > stableTime) {
        logLimits_.clear();
        otherLimit_ = {};
    }
    const bool hasOwnLimit = logLimits_.size() < maximumReasons || logLimits_.contains(reason);
    KRLogLimit& limit = hasOwnLimit ? logLimits_[reason] : otherLimit_;
    if (const std::optional<int> refused = limit.admit(Clock::now())) {
        const std::string before =
            *refused == 0 ? "" : " (" + std::to_string(*refused) + " times more since this was logged last)";
        logError("KRVideoDevice", title_ + " has failed: " + reason + before);
        logsOpening_ = true;
    }
}

std::string KRLiveCamera::describeSilence() const {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(silence_.limit);
    const std::string limit = seconds == silence_.limit ? std::to_string(seconds.count()) + " s"
                                                        : std::to_string(silence_.limit.count()) + " ms";
    return "no image within " + limit + (silence_.hint.empty() ? "" : "; " + silence_.hint);
}

bool KRLiveCamera::pause(Clock::duration delay) {
    KRLock lock(mutex_);
    changed_.waitFor(lock, delay, [this] {
        mutex_.assertHeld();
        return stopping_ || tryNow_;
    });
    tryNow_ = false;
    return !stopping_;
}

} // namespace KR
