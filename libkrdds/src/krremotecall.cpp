#include "krremotecall.hpp"

#include <krplatform/krlog.hpp>

namespace KR {

void KRServedCall::succeed(const KRValue& result) noexcept {
    try {
        peer_->reply(sequence_, KRReply::Result, result);
    } catch (const KRError& error) {
        fail(KRError(module, method, error.getDescription()));
    } catch (const std::exception& error) {
        fail(KRError(module, method, error.what()));
    }
}

void KRServedCall::fail(const KRError& error) noexcept {
    try {
        peer_->reply(sequence_, KRReply::Error,
                     KRValue::array(error.getModule(), error.getMethod(), error.getDescription()));
    } catch (const std::exception& failure) { // the caller asks, and hears that its call is not known
        logError("krdds", "an error of " + module + "." + method + " is not told: " + failure.what());
    }
}

} // namespace KR
