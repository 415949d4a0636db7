// A module that never shuts down.

#include <krplatform/krmodule.hpp>
#include <krplatform/krmoduleclass.hpp>

#include <unistd.h>

namespace {

class Stuck : public KR::KRModule {
public:
    using KR::KRModule::KRModule;
    ~Stuck() override {
        for (;;) {
            ::pause();
        }
    }
};

} // namespace

KR_REGISTER_MODULE(Stuck)
