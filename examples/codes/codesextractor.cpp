#include "codesextractor.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <apriltag/common/zarray.h>
#include <apriltag/tag36h11.h>

#include <algorithm>
#include <cstddef>
#include <exception>

namespace {

using Outline = decltype(Code::outline);

Outline getBox(const Outline& points) {
    std::array<float, 2> low = points.front();
    std::array<float, 2> high = low;
    for (const auto& [x, y] : points) {
        low = {std::min(low[0], x), std::min(low[1], y)};
        high = {std::max(high[0], x), std::max(high[1], y)};
    }
    return {low, {high[0], low[1]}, high, {low[0], high[1]}};
}

} // namespace

CodesExtractor::CodesExtractor(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
    : KRVisionExtractor(broker, name, KR::kVGA, KR::kLumaColorSpace, 15, 0), memory_(broker),
      family_(tag36h11_create()), detector_(apriltag_detector_create()) {
    scanner_.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_ENABLE, 1);
    apriltag_detector_add_family(detector_.get(), family_.get());
    declareEvent(getName() + "/CodeSeen");
    declareMemoryKey(getName() + "/Codes");
    declareMemoryKey(getName() + "/Annotations");
}

void CodesExtractor::DeleteTags::operator()(apriltag_family_t* family) const noexcept {
    tag36h11_destroy(family);
}

void CodesExtractor::DeleteTags::operator()(apriltag_detector_t* detector) const noexcept {
    apriltag_detector_destroy(detector);
}

void CodesExtractor::xUpdateParameters(int period, float precision) {
    decimation_ = 1.0F / std::clamp(precision, 0.25F, 1.0F);
    KRVisionExtractor::xUpdateParameters(period, precision);
}

void CodesExtractor::xStartImageProcessing() {
    before_.clear();
}

void CodesExtractor::xStopImageProcessing() {}

void CodesExtractor::xProcessImage(KR::KRImage* image) {
    if (image->colorSpace != KR::kLumaColorSpace) { // the parameter "colorSpace" has been changed
        KR::logError("codes",
                     getName() + " needs luma, not colour space " + std::to_string(image->colorSpace));
        return;
    }
    try {
        std::vector<Code> codes;
        readBarCodes(*image, codes);
        readTags(*image, codes);
        report(*image, codes);
    } catch (const std::exception& error) { // try again with the next image
        KR::logWarning("codes", getName() + " cannot process an image: " + error.what());
    }
}

void CodesExtractor::readBarCodes(KR::KRImage& image, std::vector<Code>& codes) {
    zbar::Image luma(static_cast<unsigned>(image.width), static_cast<unsigned>(image.height), "Y800",
                     image.data.get(), static_cast<unsigned long>(image.width) * image.height);
    scanner_.scan(luma);
    for (auto symbol = luma.symbol_begin(); symbol != luma.symbol_end(); ++symbol) {
        Code code{symbol->get_type_name(), symbol->get_data(), {}, 1};
        for (int i = 0; i < symbol->get_location_size(); ++i) {
            code.outline.push_back({static_cast<float>(symbol->get_location_x(static_cast<unsigned>(i))),
                                    static_cast<float>(symbol->get_location_y(static_cast<unsigned>(i)))});
        }
        if (code.outline.size() > 4) { // for bar codes: the ends of all scan lines
            code.outline = getBox(code.outline);
        }
        codes.push_back(std::move(code));
    }
    luma.set_data(nullptr, 0); // the pixels belong to the image
}

void CodesExtractor::readTags(KR::KRImage& image, std::vector<Code>& codes) {
    detector_->quad_decimate = decimation_;
    image_u8_t luma = {image.width, image.height, image.width, image.data.get()};
    zarray_t* const found = apriltag_detector_detect(detector_.get(), &luma);
    for (int i = 0; i < zarray_size(found); ++i) {
        apriltag_detection_t* tag = nullptr;
        zarray_get(found, i, &tag);
        Code code{"AprilTag", std::to_string(tag->id), {}, std::min(tag->decision_margin / 100, 1.0F)};
        for (const auto& corner : tag->p) {
            code.outline.push_back({static_cast<float>(corner[0]), static_cast<float>(corner[1])});
        }
        codes.push_back(std::move(code));
    }
    apriltag_detections_destroy(found);
}

void CodesExtractor::report(const KR::KRImage& image, const std::vector<Code>& codes) {
    KR::KRAnnotations annotations(image);
    std::vector<KR::KRValue> texts;
    std::set<std::array<std::string, 2>> now;
    for (const Code& code : codes) {
        texts.push_back(KR::KRValue::array(code.kind, code.text));
        KR::KRAnnotations::Polyline outline{{}, true};
        for (const auto& [x, y] : code.outline) {
            outline.points.push_back(
                {x / static_cast<float>(image.width), y / static_cast<float>(image.height)});
        }
        if (!outline.points.empty()) {
            annotations.texts.push_back({outline.points.front(), code.kind + " " + code.text});
        }
        if (outline.points.size() >= 2) {
            annotations.polylines.push_back(std::move(outline));
        }
        now.insert({code.kind, code.text});
    }
    memory_.insertData(getName() + "/Codes", KR::KRValue(std::move(texts)));
    memory_.insertData(getName() + "/Annotations", annotations.toKRValue());
    for (const auto& [kind, text] : now) {
        if (!before_.contains({kind, text})) {
            memory_.raiseEvent(getName() + "/CodeSeen", KR::KRValue::array(kind, text));
        }
    }
    before_ = std::move(now);
}
