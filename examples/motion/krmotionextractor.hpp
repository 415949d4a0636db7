#pragma once

#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmutex.hpp>
#include <krvision/krvisionextractor.hpp>

#include <atomic>
#include <string>
#include <vector>

/// How much of a picture differs from the previous one, and where.
///
/// Positions are fractions of the picture's width and height, from its left upper corner.
struct Motion {
    float amount = 0; ///< fraction of the sampled pixels that changed, 0 to 1
    float x = 0;      ///< centre of the change
    float y = 0;
    float left = 0; ///< box around the change; empty if nothing changed
    float top = 0;
    float right = 0;
    float bottom = 0;
};

/// Detects where and how much a camera's picture moves, from the luma of consecutive images.
///
/// Writes [amount, x, y, left, top, right, bottom] under the memory key "NAME/Motion" with every image but the
/// first, and raises the event "NAME/MotionDetected" with the same value when the share of changed pixels reaches the
/// parameter "threshold". The key "NAME/Annotations" gets KRAnnotations with a box around the motion. The current
/// precision sets the sampling: 1 takes every pixel, 0.25 every fourth in both directions; every eighth is the
/// coarsest.
class KRMotionExtractor : public KR::KRVisionExtractor {
public:
    /// Luma differences of up to this many of 256 levels are camera noise, larger ones are changes.
    static constexpr int kNoise = 20;
    static constexpr float kThreshold = 0.001F; ///< initial value

    /// \param camera  index of the camera at the camera service
    /// \throws KRError  the name is taken
    KRMotionExtractor(boost::shared_ptr<KR::KRBroker> broker, const std::string& name, int camera = 0);

    std::string getMotionKey() const { return getName() + "/Motion"; }
    std::string getAnnotationsKey() const { return getName() + "/Annotations"; }
    std::string getMotionEvent() const { return getName() + "/MotionDetected"; }
    /// The last motion written. Thread-safe.
    Motion getMotion() const;

    void xUpdateParameters(int period, float precision) override;
    using KR::KRVisionExtractor::xUpdateParameters;
    void xStartImageProcessing() override;
    void xProcessImage(KR::KRImage* image) override;
    void xStopImageProcessing() override;

private:
    KR::KRMemoryProxy memory_;
    std::atomic<int> step_ = 1;                 // distance between sampled pixels
    std::atomic<float> threshold_ = kThreshold; // share of the pixels

    // Used by the acquisition thread only.
    std::vector<unsigned char> luma_;
    std::vector<unsigned char> lumaBefore_; // empty before the first image
    int widthBefore_ = 0;
    int stepBefore_ = 0;

    mutable KR::KRMutex mutex_;
    Motion motion_ KR_GUARDED_BY(mutex_);
};

/// Finds what changed between two luma pictures of the same size, `width` pixels wide.
Motion findMotion(const std::vector<unsigned char>& before, const std::vector<unsigned char>& now, int width);
