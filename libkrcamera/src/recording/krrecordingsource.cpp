#include "recording/krrecordingsource.hpp"

#include "camera/krlivecamera.hpp"
#include "camera/krsoftwarecontrols.hpp"
#include "recording/krrecordingaddress.hpp"
#include "recording/krrecordingplayer.hpp"
#include "recording/krsteppedcamera.hpp"

namespace KR {

namespace {

class RecordingSource : public KRSource {
public:
    explicit RecordingSource(const KRSourceString& string)
        : KRSource(string), address_(parseRecordingAddress(string.argument)) {}

    KRControls& getControls() noexcept override { return noControls_; }

    std::shared_ptr<KRCamera> makeCamera(int index, const std::string& title) override {
        if (address_.pacedByFetch) {
            return std::make_shared<KRSteppedCamera>(address_.path, address_.stream);
        }
        const auto open = [this](const KRSize& /*wanted*/) {
            return std::make_unique<KRRecordingPlayer>(address_.path, address_.stream);
        };
        return std::make_shared<KRLiveCamera>(index, title, open, KRLiveCamera::Silence());
    }

private:
    const KRRecordingAddress address_;
    KRSoftwareControls noControls_;
};

} // namespace

std::unique_ptr<KRSource> makeRecordingSource(const KRSourceString& string) {
    return std::make_unique<RecordingSource>(string);
}

} // namespace KR
