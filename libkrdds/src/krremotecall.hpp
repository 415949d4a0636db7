#pragma once

#include "krlink.hpp"
#include "krmessage.hpp"

#include <krplatform/krtransport.hpp>

#include <memory>
#include <vector>

namespace KR {

/// A module of another process on the domain.
class KRDDSModule : public KRRemoteModule {
public:
    KRDDSModule(const std::string& name, std::shared_ptr<KRPeer> peer)
        : KRRemoteModule(name, peer->getWhereabouts()), peer_(std::move(peer)) {}

    KRValue call(std::string_view method, std::span<const KRValue> arguments) override {
        return peer_->call(getName(), method, arguments);
    }

private:
    const std::shared_ptr<KRPeer> peer_;
};

/// A call that came from another process on the domain.
class KRServedCall : public KRIncomingCall {
public:
    KRServedCall(std::shared_ptr<KRLink> link, const KRRequest& request, std::vector<KRValue> values)
        : KRIncomingCall(request.broker, request.module, request.method, std::move(values)),
          link_(std::move(link)), sequence_(request.sequence) {}
    ~KRServedCall() override { link_->forgetCall(caller, sequence_); }

    /// Waits until the caller is known, who may have found this process first, and reads answers.
    bool begin() override {
        peer_ = link_->waitForPeer(caller);
        return peer_ && peer_->waitForReplyReader();
    }
    void succeed(const KRValue& result) noexcept override;
    void fail(const KRError& error) noexcept override;

private:
    const std::shared_ptr<KRLink> link_;
    const std::uint64_t sequence_;
    std::shared_ptr<KRPeer> peer_;
};

} // namespace KR
