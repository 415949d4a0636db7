#include "krsource.hpp"

#include <stdexcept>

namespace KR {

namespace {

constexpr const char* supportedSources = "test, test:PATTERN, file:PATH, v4l2:DEVICE, gst:PIPELINE";

// The first structure is a wish; a device that lacks it gives the nearest that it has.
constexpr const char* v4l2Caps =
    "video/x-raw,format=YUY2,width=640,height=480,framerate=30/1;video/x-raw;image/jpeg";
constexpr const char* adjust = " ! videobalance name=balance ! videoflip name=flip";

// In the syntax of gst-launch. Paths are no part of it: they are set as properties of the element "source", for
// quotes and backslashes in them mean something to the parser.
std::string describe(const KRSource& source) {
    switch (source.kind) {
    case KRSource::Kind::Test:
        // The size and layout that most subscribers ask for: their images need no conversion.
        return "videotestsrc is-live=true pattern=" + source.argument +
               " ! video/x-raw,format=YUY2,width=640,height=480,framerate=30/1" + adjust;
    case KRSource::Kind::File:
        return std::string("filesrc name=source ! decodebin ! videoconvert") + adjust;
    case KRSource::Kind::V4l2:
        return std::string("v4l2src name=source ! capsfilter caps=\"") + v4l2Caps + "\" ! decodebin";
    case KRSource::Kind::Gst:
        break;
    }
    return source.argument;
}

// Only the newest image counts. Linked in the same breath as the source, so that a source may end in an element
// whose pads come later, or in caps.
std::string connectSink(const std::string& description) {
    return description + " ! appsink name=" + imageSinkName +
           " caps=video/x-raw max-buffers=1 drop=true enable-last-sample=false";
}

void setSourceProperty(const GstHandle<GstElement>& bin, const char* property, const std::string& value) {
    const GstHandle<GstElement> element(gst_bin_get_by_name(GST_BIN(bin.get()), "source"));
    g_object_set(element.get(), property, value.c_str(), nullptr);
}

void checkPattern(const std::string& pattern) {
    const GstHandle<GstElement> element(gst_element_factory_make("videotestsrc", nullptr));
    if (!element) {
        throw std::invalid_argument("test sources need the GStreamer element videotestsrc, which is missing");
    }
    gst_object_ref_sink(element.get());
    GParamSpec* property = g_object_class_find_property(G_OBJECT_GET_CLASS(element.get()), "pattern");
    const GEnumClass* patterns = G_PARAM_SPEC_ENUM(property)->enum_class;
    std::string names;
    for (guint i = 0; i < patterns->n_values; ++i) {
        if (pattern == patterns->values[i].value_nick) {
            return;
        }
        names += (i == 0 ? "" : ", ") + std::string(patterns->values[i].value_nick);
    }
    throw std::invalid_argument("there is no test pattern \"" + pattern + "\"; the patterns are " + names);
}

} // namespace

KRSource parseSource(const std::string& text) {
    const std::size_t colon = text.find(':');
    const std::string scheme = text.substr(0, colon);
    std::string argument = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (scheme == "test") {
        if (colon == std::string::npos) {
            argument = "ball";
        }
        checkPattern(argument);
        return {KRSource::Kind::Test, text, std::move(argument)};
    }
    KRSource source{KRSource::Kind::Gst, text, std::move(argument)};
    if (scheme == "file") {
        source.kind = KRSource::Kind::File;
    } else if (scheme == "v4l2") {
        source.kind = KRSource::Kind::V4l2;
    } else if (scheme != "gst") {
        throw std::invalid_argument("camera source \"" + text + "\" is not supported; supported are " +
                                    supportedSources);
    }
    if (source.argument.empty()) {
        throw std::invalid_argument("camera source \"" + text + "\" is incomplete; supported are " +
                                    supportedSources);
    }
    return source;
}

GstHandle<GstElement> makeSourceBin(const KRSource& source) {
    GError* error = nullptr;
    GstHandle<GstElement> bin(gst_parse_bin_from_description_full(
        connectSink(describe(source)).c_str(), FALSE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    const GstHandle<GError> ownedError(error);
    if (bin) {
        gst_object_ref_sink(bin.get());
    }
    if (error != nullptr || !bin) {
        throw std::runtime_error(error != nullptr ? error->message : "the pipeline cannot be built");
    }
    if (source.kind == KRSource::Kind::File) {
        setSourceProperty(bin, "location", source.argument);
    } else if (source.kind == KRSource::Kind::V4l2) {
        setSourceProperty(bin, "device", source.argument);
    }
    return bin;
}

bool isLooped(const KRSource& source) noexcept {
    return source.kind == KRSource::Kind::File;
}

std::span<const KRCameraParameter> getParameters(const KRSource& source) noexcept {
    if (source.kind == KRSource::Kind::Test || source.kind == KRSource::Kind::File) {
        return getSoftwareParameters();
    }
    return {};
}

} // namespace KR
