#pragma once

#include <krplatform/krmemoryproxy.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krvisionextractor.hpp>

#include <opencv2/objdetect.hpp>

#include <atomic>
#include <string>

/// Finds people who stand or walk upright, with OpenCV's detector: histograms of oriented gradients, and a support
/// vector machine trained on pedestrians.
///
/// With every image, writes the number of people under the memory key "NAME/Count", and KRAnnotations with a box for
/// each under "NAME/Annotations". Raises the event "NAME/CountChanged" with the number when it differs from that of
/// the previous image. The current precision sets the ratio between the searched sizes: 1 for steps of 5 %, which
/// finds most, 0 for 20 %, which is fastest. A person must be at least 96 pixels high.
class PeopleExtractor : public KR::KRVisionExtractor {
public:
    static constexpr float kThreshold = 0.4F; ///< initial value

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
    std::atomic<float> threshold_ = kThreshold; // distance from the decision boundary
    std::atomic<double> scale_ = 1.05;          // ratio of one size to the next

    std::size_t countBefore_ = 0; // used by the acquisition thread only
};
