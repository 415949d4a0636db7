// A module that looks like an extractor and fails or exits on request.

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krmoduleclass.hpp>
#include <krplatform/krvalue.hpp>

#include <utility>

namespace {

class Failing : public KR::KRModule {
public:
    Failing(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KR::KRModule(std::move(broker), name) {
        publish("getSubscribersInfo", &Failing::getSubscribersInfo);
        publish("getCurrentPeriod", &Failing::getCurrentPeriod);
        publish("getCurrentPrecision", &Failing::getCurrentPrecision);
        publish("leave", &Failing::leave);
        functionName("fail", "Failing", "Reports a failure.");
        addParam("reason", "Why.");
        advertiseMethod(getCurrentMethodDescription(), this, &Failing::fail);
    }
    ~Failing() override { shutDown(); }

    KR::KRValue getSubscribersInfo() { return KR::KRValue::array(); }
    int getCurrentPeriod() { return 100; }
    float getCurrentPrecision() { return 1; }
    void leave() { exit(); }
    void fail(const std::string& reason) { reportFailure(reason); }

private:
    template <class Member>
    void publish(const char* name, Member member) {
        functionName(name, "Failing", "");
        advertiseMethod(getCurrentMethodDescription(), this, member);
    }
};

} // namespace

KR_REGISTER_MODULE(Failing)
