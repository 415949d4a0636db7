#include "gstreamer/krpipelinesource.hpp"

#include "camera/krlivecamera.hpp"
#include "camera/krsoftwarecontrols.hpp"
#include "gstreamer/krconnection.hpp"
#include "gstreamer/krpipeline.hpp"

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace KR {

namespace {

const std::string adjust = " ! videobalance name=gain ! videobalance name=balance ! videoflip name=flip";

enum class Controls { None, Picture };

// Opening a pipe would block until someone writes to it. GStreamer reports missing files and folders.
void checkFile(const std::string& path) {
    std::error_code unknown;
    const std::filesystem::file_status status = std::filesystem::status(path, unknown);
    if (std::filesystem::is_other(status)) {
        throw std::runtime_error("it is not a regular file");
    }
}

class PipelineSource : public KRSource {
public:
    PipelineSource(const KRSourceString& string, KRPipelineDescription description, Controls controls,
                   KRLiveCamera::Silence silence = {})
        : KRSource(string), description_(std::move(description)), silence_(std::move(silence)),
          hasControls_(controls == Controls::Picture),
          controls_(hasControls_ ? getPictureControls() : std::vector<KRCameraControl>()) {}

    KRControls& getControls() noexcept override { return controls_; }

    std::shared_ptr<KRCamera> makeCamera(int index, const std::string& title) override {
        const auto open = [this](const KRSize& /*wanted*/) {
            if (description_.sourceProperty == "location") {
                checkFile(description_.sourceValue);
            }
            return std::make_unique<KRPipeline>(description_, hasControls_ ? &controls_ : nullptr);
        };
        return std::make_shared<KRLiveCamera>(index, title, open, silence_);
    }

private:
    const KRPipelineDescription description_;
    const KRLiveCamera::Silence silence_;
    const bool hasControls_;
    KRSoftwareControls controls_;
};

void checkPattern(const std::string& pattern) {
    initGStreamer();
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

// A file that GStreamer mistakes for a video may block its decoder forever.
const KRLiveCamera::Silence fileSilence{false, "the file may be damaged or hold no video"};

KRPipelineDescription describeFile(const KRSourceString& string) {
    KRPipelineDescription description;
    description.elements = "filesrc name=source ! decodebin ! videoconvert";
    description.sourceProperty = "location";
    description.sourceValue = string.argument;
    return description;
}

KRPipelineDescription describeUri(const KRSourceString& string) {
    KRPipelineDescription description;
    // Sound is ignored. A decoder is only taken if the caps cover everything that it could deliver, hence ANY.
    description.elements = "uridecodebin name=source caps=\"video/x-raw(ANY)\" expose-all-streams=false ! "
                           "videoconvert" +
                           adjust;
    description.sourceProperty = "uri";
    description.sourceValue = string.argument;
    description.hasOneStream = true;
    description.hideSecrets = [string](std::string text) { return hidePassword(string, std::move(text)); };
    return description;
}

} // namespace

std::unique_ptr<KRSource> makeTestSource(const KRSourceString& string) {
    checkPattern(string.argument);
    KRPipelineDescription description;
    // The size and layout that most subscribers ask for: their images need no conversion.
    description.elements = "videotestsrc is-live=true pattern=" + string.argument +
                           " ! video/x-raw,format=YUY2,width=640,height=480,framerate=30/1" + adjust;
    return std::make_unique<PipelineSource>(string, std::move(description), Controls::Picture);
}

std::unique_ptr<KRSource> makeFileSource(const KRSourceString& string) {
    KRPipelineDescription description = describeFile(string);
    description.elements += adjust;
    description.atEnd = KRPipelineDescription::AtEnd::Rewind;
    return std::make_unique<PipelineSource>(string, std::move(description), Controls::Picture, fileSilence);
}

std::unique_ptr<KRSource> makeStillImageSource(const KRSourceString& string) {
    KRPipelineDescription description = describeFile(string);
    // Decoded once; the elements behind imagefreeze see a live camera.
    description.elements += " ! imagefreeze is-live=true ! video/x-raw,framerate=30/1" + adjust;
    return std::make_unique<PipelineSource>(string, std::move(description), Controls::Picture, fileSilence);
}

std::unique_ptr<KRSource> makeHttpSource(const KRSourceString& string) {
    KRPipelineDescription description = describeUri(string);
    description.atEnd = KRPipelineDescription::AtEnd::Restart;
    description.explain = [uri = string.argument] { return explainConnection(uri); };
    return std::make_unique<PipelineSource>(string, std::move(description), Controls::Picture,
                                            KRLiveCamera::Silence{true});
}

std::unique_ptr<KRSource> makeRtspSource(const KRSourceString& string) {
    return std::make_unique<PipelineSource>(string, describeUri(string), Controls::Picture,
                                            KRLiveCamera::Silence{true});
}

std::unique_ptr<KRSource> makeGstSource(const KRSourceString& string) {
    KRPipelineDescription description;
    description.elements = string.argument;
    description.isUserDefined = true;
    return std::make_unique<PipelineSource>(string, std::move(description), Controls::None);
}

} // namespace KR
