#pragma once

#include "krmessage.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krtransport.hpp>

namespace KR {

/// A call of another broker that runs here, received over DDS or a socket.
class KRServedCall : public KRIncomingCall {
public:
    using KRIncomingCall::KRIncomingCall;

    /// A result that cannot be sent becomes an error.
    void succeed(const KRValue& result) noexcept final;
    /// An error that cannot be sent is logged; the caller then learns that its call is lost.
    void fail(const KRError& error) noexcept final;

protected:
    /// Sends the answer. \throws KRError  the value cannot be sent
    virtual void answer(KRReply::Status status, const KRValue& value) = 0;
};

} // namespace KR
