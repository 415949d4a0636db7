// A module that kills its process on request.

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krmoduleclass.hpp>

#include <csignal>
#include <utility>

#include <unistd.h>

namespace {

class Crashing : public KR::KRModule {
public:
    Crashing(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KR::KRModule(std::move(broker), name) {
        functionName("crash", "Crashing", "Kills the process.");
        advertiseMethod(getCurrentMethodDescription(), this, &Crashing::crash);
        functionName("getProcess", "Crashing", "Number of the process.");
        setReturn("process", "Its number.");
        advertiseMethod(getCurrentMethodDescription(), this, &Crashing::getProcess);
        declareParameter("size", "Some number.", 1, 0, 100, "", [](int) {});
    }
    ~Crashing() override { shutDown(); }

    void crash() { ::raise(SIGKILL); }
    int getProcess() { return ::getpid(); }
};

} // namespace

KR_REGISTER_MODULE(Crashing)
