#include "peopleextractor.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krvision/kropencv.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <vector>

PeopleExtractor::PeopleExtractor(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
    : KRVisionExtractor(broker, name, KR::k1280x960, KR::kBgrColorSpace, 4, 0), memory_(broker) {
    detector_.setSVMDetector(cv::HOGDescriptor::getDefaultPeopleDetector());
    declareEvent(getName() + "/CountChanged");
    declareMemoryKey(getName() + "/Count");
    declareMemoryKey(getName() + "/Annotations");
    declareParameter("threshold", "How much like a person something must look.", kThreshold, 0.0F, 2.0F,
                     "distance from the border of the classifier",
                     [this](float value) { threshold_ = value; });
}

void PeopleExtractor::xUpdateParameters(int period, float precision) {
    scale_ = 1.2 - 0.15 * std::clamp(static_cast<double>(precision), 0.0, 1.0);
    KRVisionExtractor::xUpdateParameters(period, precision);
}

void PeopleExtractor::xStartImageProcessing() {
    countBefore_ = 0;
}

void PeopleExtractor::xStopImageProcessing() {}

void PeopleExtractor::xProcessImage(KR::KRImage* image) {
    try {
        const KR::KRAnnotations people = findPeople(*image);
        const std::size_t count = people.boxes.size();
        memory_.insertData(getName() + "/Annotations", people.toKRValue());
        memory_.insertData(getName() + "/Count", static_cast<int>(count));
        if (count != countBefore_) {
            memory_.raiseEvent(getName() + "/CountChanged", static_cast<int>(count));
        }
        countBefore_ = count;
    } catch (const std::exception& error) { // OpenCV, or no memory module; try the next image
        KR::logWarning("people", getName() + " cannot process an image: " + error.what());
    }
}

KR::KRAnnotations PeopleExtractor::findPeople(const KR::KRImage& image) const {
    std::vector<cv::Rect> found;
    std::vector<double> weights; // distances from the decision boundary
    detector_.detectMultiScale(KR::toMat(image), found, weights, threshold_, cv::Size(8, 8), cv::Size(),
                               scale_);
    KR::KRAnnotations people(image);
    for (std::size_t i = 0; i < found.size(); ++i) {
        // The detector was trained on people with a margin of 16 in 128 pixels above and below.
        const float margin = static_cast<float>(found[i].height) / 8;
        const float left = static_cast<float>(found[i].x) + margin;
        const float top = static_cast<float>(found[i].y) + margin;
        const float right = static_cast<float>(found[i].x + found[i].width) - margin;
        const float bottom = static_cast<float>(found[i].y + found[i].height) - margin;
        const auto width = static_cast<float>(image.width);
        const auto height = static_cast<float>(image.height);
        const auto weight = static_cast<float>(std::max(weights[i], 0.0));
        people.boxes.push_back({left / width, top / height, right / width, bottom / height, "person",
                                weight / (1 + weight), -1});
    }
    return people;
}
