#include "v4l2/krv4l2source.hpp"

#include "camera/krlivecamera.hpp"
#include "gstreamer/krpipeline.hpp"
#include "v4l2/krv4l2controls.hpp"
#include "v4l2/krv4l2mode.hpp"

#include <string>
#include <vector>

namespace KR {

namespace {

/// A device that streams in the mode that suits the size asked for.
class DeviceStream : public KRImageSource {
public:
    DeviceStream(const std::string& device, const KRSize& wanted)
        : modes_(listV4l2Modes(device)), caps_(chooseV4l2Caps(modes_, wanted)),
          pipeline_(describe(device, caps_), nullptr) {}

    std::optional<KRCapture> pull() override { return pipeline_.pull(); }
    bool suits(const KRSize& wanted) const override { return chooseV4l2Caps(modes_, wanted) == caps_; }

private:
    static KRPipelineDescription describe(const std::string& device, const std::string& caps) {
        KRPipelineDescription description;
        description.elements = "v4l2src name=source ! capsfilter caps=\"" + caps + "\" ! decodebin";
        description.sourceProperty = "device";
        description.sourceValue = device;
        return description;
    }

    const std::vector<KRV4l2Mode> modes_;
    const std::string caps_;
    KRPipeline pipeline_;
};

class V4l2Source : public KRSource {
public:
    explicit V4l2Source(const KRSourceString& string) : KRSource(string), controls_(string.argument) {}

    KRControls& getControls() noexcept override { return controls_; }

    std::shared_ptr<KRCamera> makeCamera(int index, const std::string& title) override {
        const auto open = [this](const KRSize& wanted) {
            auto stream = std::make_unique<DeviceStream>(getString().argument, wanted);
            controls_.restore();
            return stream;
        };
        return std::make_shared<KRLiveCamera>(index, title, open, KRLiveCamera::Silence{true});
    }

private:
    KRV4l2Controls controls_;
};

} // namespace

std::unique_ptr<KRSource> makeV4l2Source(const KRSourceString& string) {
    return std::make_unique<V4l2Source>(string);
}

} // namespace KR
