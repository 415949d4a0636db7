#include "krcamera.hpp"

#include "krpipeline.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krthread.hpp>

#include <atomic>
#include <stdexcept>
#include <utility>

namespace KR {

namespace {

constexpr std::chrono::seconds firstFrameTimeout(10);

// One count for all cameras: a subscription that moves to another camera goes on counting.
std::atomic<std::uint64_t> framesCaptured{0};

} // namespace

KRCamera::KRCamera(int index, KRSource source)
    : index_(index), source_(std::move(source)), converter_(std::make_shared<KRConverter>()) {}

KRCamera::~KRCamera() {
    close();
}

void KRCamera::open() {
    thread_ = std::thread(&KRCamera::run, this);
    std::unique_lock lock(mutex_);
    const bool settled = changed_.wait_for(lock, firstFrameTimeout, [this] { return newest_ || isOver(); });
    if (newest_ && !stopping_) {
        return; // a source that has ended after its first frames has been opened all the same
    }
    throw std::runtime_error(failure_ ? *failure_
                             : !settled
                                 ? "no image within " + std::to_string(firstFrameTimeout.count()) + " s"
                                 : "the camera service is shutting down");
}

void KRCamera::requestStop() {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
}

void KRCamera::close() {
    requestStop();
    if (thread_.joinable()) {
        thread_.join();
    }
    std::shared_ptr<KRFrame> last;
    const std::lock_guard lock(mutex_);
    last = std::exchange(newest_, nullptr);
}

std::shared_ptr<KRFrame> KRCamera::waitForFrame(std::uint64_t after,
                                                std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    const auto isThere = [this, after] { return newest_ && newest_->getNumber() > after; };
    changed_.wait_until(lock, deadline, [&] { return isOver() || isThere(); });
    return !stopping_ && isThere() ? newest_ : nullptr;
}

std::optional<std::string> KRCamera::getFailure() const {
    const std::lock_guard lock(mutex_);
    return failure_;
}

bool KRCamera::isStopping() const {
    const std::lock_guard lock(mutex_);
    return stopping_;
}

void KRCamera::setParameter(int id, int value) {
    const std::lock_guard lock(mutex_);
    parameters_[id] = value;
    parametersChanged_ = true;
}

void KRCamera::setAllParametersToDefault() {
    const std::lock_guard lock(mutex_);
    parametersChanged_ = !parameters_.empty();
    for (auto& [id, value] : parameters_) {
        value = findParameter(getParameters(source_), id)->defaultValue;
    }
}

void KRCamera::run() {
    setThreadName("KRCamera " + std::to_string(index_));
    try {
        captureFrames();
    } catch (const std::exception& error) {
        logError("KRVideoDevice",
                 "camera " + std::to_string(index_) + " (" + source_.text + ") has failed: " + error.what());
        const std::lock_guard lock(mutex_);
        failure_ = error.what();
        changed_.notify_all();
    }
}

void KRCamera::captureFrames() {
    KRPipeline pipeline(source_);
    for (;;) {
        std::optional<std::map<int, int>> parameters;
        {
            const std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            if (std::exchange(parametersChanged_, false)) {
                parameters = parameters_;
            }
        }
        if (parameters) {
            pipeline.setParameters(*parameters);
        }
        std::optional<KRCapture> capture = pipeline.pull();
        if (!capture) {
            continue;
        }
        auto frame = std::make_shared<KRFrame>(++framesCaptured, capture->captureTime_usec,
                                               std::move(capture->buffer), capture->info, converter_);
        const std::lock_guard lock(mutex_);
        newest_.swap(frame); // the frame before goes after the lock
        changed_.notify_all();
    }
}

} // namespace KR
