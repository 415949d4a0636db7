// A module library whose module cannot be created.

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodule.hpp>
#include <krplatform/krmoduleclass.hpp>

#include <stdexcept>
#include <utility>

namespace {

class ThrowingModule : public KR::KRModule {
public:
    ThrowingModule(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KR::KRModule(std::move(broker), name) {
        throw std::runtime_error("thrown when made");
    }
};

} // namespace

KR_REGISTER_MODULE(ThrowingModule)
