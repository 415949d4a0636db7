#include "krservedcall.hpp"

#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>

namespace KR {

void KRServedCall::succeed(const KRValue& result) noexcept {
    try {
        answer(KRReply::Result, result);
    } catch (const KRError& error) {
        fail(KRError(module, method, error.getDescription()));
    } catch (const std::exception& error) {
        fail(KRError(module, method, error.what()));
    }
}

void KRServedCall::fail(const KRError& error) noexcept {
    try {
        answer(KRReply::Error, KRValue::array(error.getModule(), error.getMethod(), error.getDescription()));
    } catch (const std::exception& failure) {
        logError("krdds", "cannot report an error of " + escapeText(module + "." + method, 256) + ": " +
                              failure.what());
    }
}

} // namespace KR
