#pragma once

#include <krplatform/krmemoryproxy.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krvisionextractor.hpp>

#include <opencv2/objdetect.hpp>

#include <atomic>
#include <string>

/// Finds people who stand or walk upright, with the detector of OpenCV: histograms of oriented gradients, and a support
/// vector machine that was trained on pedestrians.
///
/// Writes the number of people under the memory key "NAME/Count" and KRAnnotations with a box for each under
/// "NAME/Annotations", with every image. Raises the event "NAME/CountChanged" with the number when that is another one than
/// in the image before. The precision in force sets how close together the sizes are in which people are looked for: 1 for
/// steps of 5 %, which finds most, 0 for 20 %, which is fastest. A person must be at least 96 pixels high.
class PeopleExtractor : public KR::KRVisionExtractor {
public:
    static constexpr float kThreshold = 0.4F; ///< at the start

    /// \throws KRError  the name is taken
    PeopleExtractor(boost::shared_ptr<KR::KRBroker> broker, const std::string& name);

    void xUpdateParameters(int period, float precision) override;
    using KR::KRVisionExtractor::xUpdateParameters;
    void xStartImageProcessing() override;
    void xProcessImage(KR::KRImage* image) override;
    void xStopImageProcessing() override;

private:
    KR::KRAnnotations findPeople(const KR::KRImage& image) const;

    KR::KRMemoryProxy memory_;
    cv::HOGDescriptor detector_;                // constant after construction
    std::atomic<float> threshold_ = kThreshold; // distance from the border between people and everything else
    std::atomic<double> scale_ = 1.05;          // of one size to the next

    std::size_t countBefore_ = 0; // used by the acquisition thread only
};
