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

/// A code in a picture, and where it is in pixels.
struct Code {
    std::string kind; ///< "AprilTag", or what ZBar calls it: "QR-Code", "EAN-13", ...
    std::string text; ///< the number of a tag; the data of any other
    std::vector<std::array<float, 2>> outline;
    float score = 1; ///< confidence, 0 to 1
};

/// Reads QR codes and bar codes, by ZBar, and AprilTags of the family 36h11.
///
/// Writes an array of [kind, text] under the memory key "NAME/Codes", and KRAnnotations with outlines and texts under
/// "NAME/Annotations", with every image. Raises the event "NAME/CodeSeen" with [kind, text] for a code that was not in the
/// image before. The precision in force is the share of the columns and rows in which tags are looked for: 1 for all, 0.5 for
/// every second.
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
    std::atomic<float> decimation_ = 1.0F; // distance of the columns and rows that are searched

    // Used by the acquisition thread only.
    zbar::ImageScanner scanner_;
    std::unique_ptr<apriltag_family_t, DeleteTags> family_;
    std::unique_ptr<apriltag_detector_t, DeleteTags> detector_; // destroyed before its family
    std::set<std::array<std::string, 2>> before_;               // in the last image
};
