// A vision extractor that subscribes to the next one's event: "Ring1" to that of "Ring2", "Ring3" to that of "Ring1".

#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmoduleclass.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <string>
#include <utility>

namespace {

class Ring : public KR::KRVisionExtractor {
public:
    Ring(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRVisionExtractor(broker, name, KR::kQVGA, KR::kLumaColorSpace, 30, 0), memory_(broker) {
        functionName("onSeen", name, "Counts the images of the next module.");
        addParam("event", "Name of the event.");
        addParam("count", "Images so far.");
        advertiseMethod(getCurrentMethodDescription(), this, &Ring::onSeen);
        declareEvent(name + "/Seen");
        declareMemoryKey(name + "/Heard");
        const int number = name.back() - '0';
        memory_.subscribeToEvent("Ring" + std::to_string(number % 3 + 1) + "/Seen", name, "onSeen");
    }

    void onSeen(const std::string& /*event*/, const KR::KRValue& count) {
        memory_.insertData(getName() + "/Heard", count);
    }
    void xStartImageProcessing() override {}
    void xProcessImage(KR::KRImage* /*image*/) override {
        memory_.raiseEvent(getName() + "/Seen", ++images_);
    }
    void xStopImageProcessing() override {}

private:
    KR::KRMemoryProxy memory_;
    int images_ = 0; // of the acquisition thread
};

} // namespace

KR_REGISTER_MODULE(Ring)
