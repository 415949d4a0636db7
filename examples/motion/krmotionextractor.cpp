#include "krmotionextractor.hpp"

#include <krplatform/krlog.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

constexpr int kCoarsest = 8;

KR::KRValue toValue(const Motion& motion) {
    return KR::KRValue::array(motion.amount, motion.x, motion.y, motion.left, motion.top, motion.right,
                              motion.bottom);
}

KR::KRAnnotations annotate(const KR::KRImage& image, const Motion& motion, bool detected) {
    KR::KRAnnotations annotations(image);
    if (detected) {
        annotations.boxes.push_back(
            {motion.left, motion.top, motion.right, motion.bottom, "motion", motion.amount, -1});
    }
    return annotations;
}

} // namespace

KRMotionExtractor::KRMotionExtractor(boost::shared_ptr<KR::KRBroker> broker, const std::string& name,
                                     int camera)
    : KRVisionExtractor(broker, name, KR::kQVGA, KR::kYUV422ColorSpace, 30, camera), memory_(broker) {
    declareEvent(getMotionEvent());
    declareMemoryKey(getMotionKey());
    declareMemoryKey(getAnnotationsKey());
    declareParameter("threshold", "Share of the pixels that must change for motion to be detected.",
                     kThreshold, 0.0F, 1.0F, "of the pixels", [this](float value) { threshold_ = value; });
}

Motion KRMotionExtractor::getMotion() const {
    const KR::KRLock lock(mutex_);
    return motion_;
}

void KRMotionExtractor::xUpdateParameters(int period, float precision) {
    const float step = precision > 0 ? std::round(1.0F / precision) : static_cast<float>(kCoarsest);
    step_ = static_cast<int>(std::clamp(step, 1.0F, static_cast<float>(kCoarsest)));
    KRVisionExtractor::xUpdateParameters(period, precision);
}

void KRMotionExtractor::xStartImageProcessing() {
    lumaBefore_.clear();
}

void KRMotionExtractor::xStopImageProcessing() {}

void KRMotionExtractor::xProcessImage(KR::KRImage* image) {
    if (image->colorSpace != KR::kYUV422ColorSpace && image->colorSpace != KR::kLumaColorSpace) {
        KR::logError("motion", getName() + " needs images with luma first, not colour space " +
                                   std::to_string(image->colorSpace));
        return;
    }
    const int step = step_;
    const unsigned char* const pixels = image->data.get();
    luma_.clear();
    for (int y = 0; y < image->height; y += step) {
        for (int x = 0; x < image->width; x += step) {
            luma_.push_back(
                pixels[(y * image->width + x) * image->nbLayers]); // luma comes first in both colour spaces
        }
    }
    const int width = (image->width + step - 1) / step;
    const bool comparable =
        luma_.size() == lumaBefore_.size() && width == widthBefore_ && step == stepBefore_;
    if (comparable) {
        const Motion motion = findMotion(lumaBefore_, luma_, width);
        {
            const KR::KRLock lock(mutex_);
            motion_ = motion;
        }
        const bool detected = motion.amount > 0 && motion.amount >= threshold_;
        try {
            memory_.insertData(getMotionKey(), toValue(motion));
            memory_.insertData(getAnnotationsKey(), annotate(*image, motion, detected).toKRValue());
            if (detected) {
                memory_.raiseEvent(getMotionEvent(), toValue(motion));
            }
        } catch (const KR::KRError& error) { // try again with the next image
            KR::logWarning("motion", getName() + " cannot report motion: " + error.what());
        }
    }
    std::swap(luma_, lumaBefore_);
    widthBefore_ = width;
    stepBefore_ = step;
}

Motion findMotion(const std::vector<unsigned char>& before, const std::vector<unsigned char>& now,
                  int width) {
    const int height = static_cast<int>(now.size()) / width;
    int count = 0;
    double sumX = 0;
    double sumY = 0;
    int left = width;
    int top = height;
    int right = 0;
    int bottom = 0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const auto i = static_cast<std::size_t>(y) * width + x;
            if (std::abs(now[i] - before[i]) > KRMotionExtractor::kNoise) {
                ++count;
                sumX += x + 0.5;
                sumY += y + 0.5;
                left = std::min(left, x);
                top = std::min(top, y);
                right = std::max(right, x + 1);
                bottom = std::max(bottom, y + 1);
            }
        }
    }
    if (count == 0) {
        return {};
    }
    const auto fraction = [](double part, int whole) { return static_cast<float>(part / whole); };
    return {fraction(count, width * height), fraction(sumX / count, width), fraction(sumY / count, height),
            fraction(left, width),           fraction(top, height),         fraction(right, width),
            fraction(bottom, height)};
}
