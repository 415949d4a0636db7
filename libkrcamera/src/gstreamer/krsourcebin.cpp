#include "gstreamer/krsourcebin.hpp"

#include <stdexcept>
#include <string>

namespace KR {

namespace {

// The sink keeps the newest image only. It is part of the description that is parsed, so that a source may end in an
// element whose pads are added later, or in caps.
std::string appendSink(const std::string& elements) {
    const std::string range = "(int)[1," + std::to_string(largestSide) + "]";
    return elements + " ! appsink name=" + imageSinkName + " caps=\"video/x-raw,width=" + range +
           ",height=" + range + "\" max-buffers=1 drop=true enable-last-sample=false";
}

} // namespace

GstHandle<GstElement> makeSourceBin(const KRPipelineDescription& description) {
    GError* error = nullptr;
    GstHandle<GstElement> bin(gst_parse_bin_from_description_full(
        appendSink(description.elements).c_str(), FALSE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    const GstHandle<GError> ownedError(error);
    if (bin) {
        gst_object_ref_sink(bin.get());
    }
    if (error != nullptr || !bin) {
        throw std::runtime_error(error != nullptr ? error->message : "the pipeline cannot be built");
    }
    if (!description.sourceProperty.empty()) {
        const GstHandle<GstElement> element(gst_bin_get_by_name(GST_BIN(bin.get()), "source"));
        g_object_set(element.get(), description.sourceProperty.c_str(), description.sourceValue.c_str(),
                     nullptr);
    }
    return bin;
}

} // namespace KR
