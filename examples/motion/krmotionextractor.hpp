#pragma once

#include <krplatform/krmemoryproxy.hpp>
#include <krvision/krvisionextractor.hpp>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

/// How much of a picture differs from the one before, and where.
///
/// Positions are fractions of the picture's width and height, from its left upper corner.
struct Motion {
    float amount = 0; ///< fraction of the pixels looked at that changed, 0 to 1
    float x = 0;      ///< centre of what changed
    float y = 0;
    float left = 0; ///< box around what changed; empty if nothing did
    float top = 0;
    float right = 0;
    float bottom = 0;
};

/// Tells where and how much the picture of a camera moves, from the luma of consecutive images.
///
/// Writes [amount, x, y, left, top, right, bottom] under the memory key "NAME/Motion" with every image but the
/// first, and raises the event "NAME/MotionDetected" with the same value when at least kDetected of the pixels
/// changed. The key "NAME/Annotations" gets KRAnnotations with a box around what moves. The precision in force chooses
/// the sampling: 1 takes every pixel, 0.25 every fourth in both directions; every eighth is the coarsest.
class KRMotionExtractor : public KR::KRVisionExtractor {
public:
    /// A luma difference of more than this many of 256 levels is a change and not the noise of the camera.
    static constexpr int kNoise = 20;
    static constexpr float kDetected = 0.001F;

    /// \param camera  index of the camera at the camera service
    /// \throws KRError  the name is taken
    KRMotionExtractor(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, int camera = 0);

    std::string getMotionKey() const { return getName() + "/Motion"; }
    std::string getAnnotationsKey() const { return getName() + "/Annotations"; }
    std::string getMotionEvent() const { return getName() + "/MotionDetected"; }
    /// What was written last. Thread-safe.
    Motion getMotion() const;

    void xUpdateParameters(int period, float precision) override;
    using KR::KRVisionExtractor::xUpdateParameters;
    void xStartImageProcessing() override;
    void xProcessImage(KR::KRImage* image) override;
    void xStopImageProcessing() override;

private:
    KR::KRMemoryProxy memory_;
    std::atomic<int> step_ = 1; // pixels from one that is looked at to the next

    // Of the acquisition thread.
    std::vector<unsigned char> luma_;
    std::vector<unsigned char> lumaBefore_; // empty before the first image
    int widthBefore_ = 0;
    int stepBefore_ = 0;

    mutable std::mutex mutex_;
    Motion motion_; // guarded by mutex_
};

/// Finds what changed between two luma pictures of the same size, `width` pixels wide.
Motion findMotion(const std::vector<unsigned char>& before, const std::vector<unsigned char>& now, int width);
