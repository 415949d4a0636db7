#pragma once

#include "camera/krcamera.hpp"
#include "recording/krrecording.hpp"

#include <krplatform/krmutex.hpp>

#include <memory>
#include <optional>
#include <string>

namespace KR {

class KRConverter;

/// A recording that is paced by its subscribers: each of them gets each image once, from the first to the last, as fast
/// as it fetches. After its last image, a subscription gets an error; the recording does not repeat. A module's results
/// on such a recording do not depend on time.
class KRSteppedCamera : public KRCamera {
public:
    KRSteppedCamera(std::string path, int stream);

    void open() override;
    void close() override;
    /// Does not wait. The frame has the number `after` + 1.
    std::shared_ptr<KRFrame> waitForFrame(std::uint64_t after,
                                          std::chrono::steady_clock::time_point deadline) override;
    bool isLast(std::uint64_t number) const override;
    Status getStatus() const override;

private:
    const std::string path_;
    const int stream_;
    const std::shared_ptr<KRConverter> converter_;

    mutable KRMutex mutex_;
    std::optional<KRRecording> recording_ KR_GUARDED_BY(mutex_);
    Status status_ KR_GUARDED_BY(mutex_);
    bool stopping_ KR_GUARDED_BY(mutex_) = false;
};

} // namespace KR
