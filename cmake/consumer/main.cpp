#include <krextractor/krextractor.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krfunctor.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krthread.hpp>
#include <krplatform/krvalue.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krimage.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>
#ifdef WITH_CAMERA
#include <krcamera/krvideodevice.hpp>
#endif
#ifdef WITH_DDS
#include <krdds/krdds.hpp>
#endif

#include <atomic>
#include <iostream>

namespace {

class Counter : public KR::KRVisionExtractor {
public:
    Counter(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRVisionExtractor(broker, name, 0, 9, 30, 0) {}
    void xStartImageProcessing() override {}
    void xProcessImage(KR::KRImage* image) override { images += image->width == 160 ? 1 : 0; }
    void xStopImageProcessing() override {}
    std::atomic<int> images = 0;
};

} // namespace

int main() {
#ifdef WITH_DDS
    KR::registerDDS();
#endif
    const auto broker = KR::KRBroker::create("local:");
#ifdef WITH_CAMERA
    const auto camera =
        KR::createModule<KR::KRVideoDevice>(broker, "KRVideoDevice", std::vector<std::string>{"test"});
    const auto counter = KR::createModule<Counter>(broker, "Counter");
    broker->getProxy("Counter")->call("subscribe", "client", 100, 1.0F);
    std::cout << counter->images << " images\n";
    broker->getProxy("Counter")->call("unsubscribe", "client");
    return counter->images > 0 ? 0 : 1;
#else
    const auto counter = KR::createModule<Counter>(broker, "Counter");
    return broker->getProxy("Counter")->call<int>("getCurrentPeriod") == -1 ? 0 : 1;
#endif
}
