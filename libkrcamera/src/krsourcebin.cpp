#include "krsourcebin.hpp"

#include <stdexcept>
#include <string>

namespace KR {

namespace {

constexpr const char* adjust = " ! videobalance name=gain ! videobalance name=balance ! videoflip name=flip";

// In the syntax of gst-launch. Paths are no part of it: they are set as properties of the element "source", for
// quotes and backslashes in them mean something to the parser.
std::string describe(const KRSource& source, const std::string& v4l2Caps) {
    switch (source.kind) {
    case KRSource::Kind::Test:
        // The size and layout that most subscribers ask for: their images need no conversion.
        return "videotestsrc is-live=true pattern=" + source.argument +
               " ! video/x-raw,format=YUY2,width=640,height=480,framerate=30/1" + adjust;
    case KRSource::Kind::File:
        return std::string("filesrc name=source ! decodebin ! videoconvert") + adjust;
    case KRSource::Kind::Image:
        // Decoded once; what follows sees a camera that looks at it.
        return std::string("filesrc name=source ! decodebin ! videoconvert ! imagefreeze is-live=true ! "
                           "video/x-raw,framerate=30/1") +
               adjust;
    case KRSource::Kind::Network:
        // Sound is left alone. A decoder is only taken if the caps cover everything that it could deliver, hence ANY.
        return std::string("uridecodebin name=source caps=\"video/x-raw(ANY)\" expose-all-streams=false ! "
                           "videoconvert") +
               adjust;
    case KRSource::Kind::V4l2:
        return "v4l2src name=source ! capsfilter caps=\"" + v4l2Caps + "\" ! decodebin";
    case KRSource::Kind::Gst:
    case KRSource::Kind::Recording:
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

// The property of the element "source" that takes the argument, or null.
const char* getSourceProperty(const KRSource& source) {
    switch (source.kind) {
    case KRSource::Kind::File:
    case KRSource::Kind::Image:
        return "location";
    case KRSource::Kind::V4l2:
        return "device";
    case KRSource::Kind::Network:
        return "uri";
    case KRSource::Kind::Test:
    case KRSource::Kind::Gst:
    case KRSource::Kind::Recording:
        break;
    }
    return nullptr;
}

} // namespace

GstHandle<GstElement> makeSourceBin(const KRSource& source, const std::string& v4l2Caps) {
    GError* error = nullptr;
    GstHandle<GstElement> bin(
        gst_parse_bin_from_description_full(connectSink(describe(source, v4l2Caps)).c_str(), FALSE, nullptr,
                                            GST_PARSE_FLAG_FATAL_ERRORS, &error));
    const GstHandle<GError> ownedError(error);
    if (bin) {
        gst_object_ref_sink(bin.get());
    }
    if (error != nullptr || !bin) {
        throw std::runtime_error(error != nullptr ? error->message : "the pipeline cannot be built");
    }
    if (const char* property = getSourceProperty(source)) {
        const GstHandle<GstElement> element(gst_bin_get_by_name(GST_BIN(bin.get()), "source"));
        g_object_set(element.get(), property, source.argument.c_str(), nullptr);
    }
    return bin;
}

} // namespace KR
