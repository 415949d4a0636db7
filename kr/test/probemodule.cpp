// A vision extractor that reports what it saw of each image, and misbehaves as the tests of kr evaluate request.

#include <krplatform/krbroker.hpp>
#include <krplatform/krclock.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmoduleclass.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace {

/// Writes NAME/Seen = [images so far, a byte of the image, its time by the broker's clock, precision, width, word]
/// and NAME/Annotations, and raises NAME/Tenth at each tenth image.
class Probe : public KR::KRVisionExtractor {
public:
    Probe(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRVisionExtractor(broker, name, 0, KR::kLumaColorSpace, 30, 0), memory_(broker),
          clock_(broker->getClock()) {
        publish("setThrowAt", &Probe::setThrowAt, {"image"});
        publish("setExitAt", &Probe::setExitAt, {"image"});
        publish("setHangAt", &Probe::setHangAt, {"image"});
        publish("setOffset", &Probe::setOffset, {"offset"});
        publish("setWord", &Probe::setWord, {"first", "second"});
        declareEvent(name + "/Tenth");
        declareMemoryKey(name + "/Seen");
    }
    ~Probe() override { shutDown(); }

    bool setThrowAt(const int& image) {
        throwAt_ = image;
        return image >= 0;
    }
    void setExitAt(const int& image) { exitAt_ = image; }
    void setHangAt(const int& image) { hangAt_ = image; }
    void setOffset(const float& offset) { offset_ = offset; }
    void setWord(const std::string& first, const std::string& second) { word_ = first + second; }

    void xUpdateParameters(int period, float precision) override {
        KRVisionExtractor::xUpdateParameters(period, precision);
        precision_ = precision;
    }
    void xStartImageProcessing() override {}
    void xProcessImage(KR::KRImage* image) override {
        const int count = count_++;
        if (count == hangAt_) {
            KR::logWarning("probe", "hangs");
            for (;;) {
                std::this_thread::sleep_for(std::chrono::seconds(1));
            }
        }
        if (count == throwAt_) {
            throw std::runtime_error("thrown on purpose");
        }
        if (count == exitAt_) {
            exit();
        }
        const auto sinceImage = static_cast<int>(clock_.getTime_usec() - image->timeStamp);
        memory_.insertData(getName() + "/Seen",
                           KR::KRValue::array(count, image->data[5000] + offset_, sinceImage,
                                              precision_.load(), image->width, word_));
        memory_.insertData(getName() + "/Annotations", KR::KRAnnotations(*image).toKRValue());
        if (count % 10 == 9) {
            memory_.raiseEvent(getName() + "/Tenth", count);
        }
    }
    void xStopImageProcessing() override {}

private:
    template <class Member>
    void publish(const char* name, Member member, std::initializer_list<const char*> parameters) {
        functionName(name, "Probe", "");
        for (const char* parameter : parameters) {
            addParam(parameter, "");
        }
        advertiseMethod(getCurrentMethodDescription(), this, member);
    }

    KR::KRMemoryProxy memory_;
    KR::KRClock& clock_;
    std::atomic<float> precision_ = -1;
    int throwAt_ = -1; // these are set before it starts
    int exitAt_ = -1;
    int hangAt_ = -1;
    float offset_ = 0;
    std::string word_;
    int count_ = 0; // on the acquisition thread
};

} // namespace

KR_REGISTER_MODULE(Probe)
