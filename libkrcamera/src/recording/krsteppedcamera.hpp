#pragma once

#include "camera/krcamera.hpp"
#include "recording/krrecording.hpp"

#include <mutex>
#include <optional>
#include <string>

namespace KR {

/// A recording that waits for its subscribers: each of them gets each image once, from the first to the last, as fast
/// as it fetches. After the last one it has ended, for that subscription; it never starts again by itself, so that
/// what a module makes of it does not depend on time.
class KRSteppedCamera : public KRCamera {
public:
    KRSteppedCamera(std::string path, int stream);

    void open() override;
    void close() override;
    /// Waits for nothing. The frame has the number `after` + 1.
    std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                          std::chrono::steady_clock::time_point deadline) override;
    Status getStatus() const override;

private:
    const std::string path_;
    const int stream_;
    const std::shared_ptr<KRConverter> converter_;

    mutable std::mutex mutex_;
    // Guarded by mutex_:
    std::optional<KRRecording> recording_;
    Status status_;
    bool stopping_ = false;
};

} // namespace KR
