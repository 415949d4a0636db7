#pragma once

#include <krplatform/krmemoryproxy.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krvisionextractor.hpp>

#include <apriltag/apriltag.h>
#include <zbar.h>

#include <array>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

/// A code in a picture, with its outline in pixels.
struct Code {
    std::string kind; ///< "AprilTag", or ZBar's name: "QR-Code", "EAN-13", ...
    std::string text; ///< number of a tag; data of any other code
    std::vector<std::array<float, 2>> outline;
    float score = 1; ///< confidence, 0 to 1
};

/// Reads QR codes and bar codes, with ZBar, and AprilTags of the family 36h11.
///
/// With every image, writes an array of [kind, text] under the memory key "NAME/Codes", and KRAnnotations with
/// outlines and texts under "NAME/Annotations". Raises the event "NAME/CodeSeen" with [kind, text] for a code that
/// was not in the previous image. The current precision is the share of columns and rows that are searched for tags:
/// 1 for all, 0.5 for every second.
class CodesExtractor : public KR::KRVisionExtractor {
public:
    /// \throws KRError  the name is taken
    CodesExtractor(boost::shared_ptr<KR::KRBroker> broker, const std::string& name);

    void xUpdateParameters(int period, float precision) override;
    using KR::KRVisionExtractor::xUpdateParameters;
    void xStartImageProcessing() override;
    void xProcessImage(KR::KRImage* image) override;
    void xStopImageProcessing() override;

private:
    struct DeleteTags {
        void operator()(apriltag_family_t* family) const noexcept;
        void operator()(apriltag_detector_t* detector) const noexcept;
    };

    void readBarCodes(KR::KRImage& image, std::vector<Code>& codes);
    void readTags(KR::KRImage& image, std::vector<Code>& codes);
    void report(const KR::KRImage& image, const std::vector<Code>& codes);

    KR::KRMemoryProxy memory_;
    std::atomic<float> decimation_ = 1.0F; // distance between searched columns and rows

    // Used by the acquisition thread only.
    zbar::ImageScanner scanner_;
    std::unique_ptr<apriltag_family_t, DeleteTags> family_;
    std::unique_ptr<apriltag_detector_t, DeleteTags> detector_; // destroyed before its family
    std::set<std::array<std::string, 2>> before_;               // in the last image
};
