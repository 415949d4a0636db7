#include "krlocalway.hpp"

#include "krservedcall.hpp"
#include "krvaluecode.hpp"

#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krtext.hpp>
#include <krplatform/krthread.hpp>

#include <unistd.h>

#include <utility>

namespace KR {

namespace {

/// A call received through a connection, answered on the thread that read it.
class Served : public KRServedCall {
public:
    Served(std::shared_ptr<KRLocalRequest> request, std::function<bool()> isGone, std::string toModule,
           std::string toMethod, std::vector<KRValue> values)
        : KRServedCall(request->getCaller(), std::move(toModule), std::move(toMethod), std::move(values)),
          request_(std::move(request)), isGone_(std::move(isGone)) {}

    bool isCallerGone() const noexcept override { return request_->isCallerGone() || (isGone_ && isGone_()); }

private:
    void answer(KRReply::Status status, const KRValue& value) override {
        KRLocalMessage message;
        message.code = status;
        encodeValue(value, message);
        request_->reply(message);
    }

    const std::shared_ptr<KRLocalRequest> request_;
    const std::function<bool()> isGone_;
};

/// \throws KRMalformed
std::shared_ptr<KRIncomingCall> readCall(std::shared_ptr<KRLocalRequest> request,
                                         std::function<bool()> isGone) {
    const KRValue call = decodeValue(request->message);
    request->message = {}; // the call owns its contents
    if (!call.isArray() || call.getSize() != 3 || !call[0].isString() || !call[1].isString() ||
        !call[2].isArray()) {
        throw KRMalformed("a request is malformed: it is not a module, a method and arguments");
    }
    return std::make_shared<Served>(std::move(request), std::move(isGone), call[0].to<std::string>(),
                                    call[1].to<std::string>(), call[2].to<std::vector<KRValue>>());
}

} // namespace

void KRLocalWay::start(const KRDDSOptions& options, const std::string& id) {
    if (!options.local) {
        offReason_ = options.security.empty() ? "local=off" : "security is on";
        return;
    }
    try {
        endpoint_ = std::make_shared<KRLocalEndpoint>(
            KRLocalOptions{id, options.localGroup, options.localMemory}, *this);
    } catch (const KRError& error) {
        if (!options.localGroup.empty()) {
            throw KRError("KRBroker", "create",
                          "local=group:" + options.localGroup + ": " + error.getDescription());
        }
        offReason_ = error.getDescription();
        logWarning("krdds", "brokers of this machine are called over DDS: " + offReason_);
        return;
    }
    admitsGroup_ = !options.localGroup.empty();
    address_ = endpoint_->getAddress().toText();
}

KRLocalWay::Reach KRLocalWay::reach(const std::string& broker, const std::string& address, pid_t process) {
    if (!endpoint_) {
        return {nullptr, offReason_ + " here"};
    }
    if (address.empty()) {
        return {nullptr, "it offers no other way"};
    }
    const auto parsed = KRLocalAddress::parse(address);
    if (!parsed) {
        return {nullptr, "it speaks another version of the local protocol"};
    }
    if (!parsed->isOnThisMachine()) {
        return {nullptr, "it is on another machine or in a container"};
    }
    if (parsed->process != process || process == 0) {
        return {nullptr, "it does not name its own process"};
    }
    if (parsed->user != geteuid() && !admitsGroup_) {
        return {nullptr, "it is of user " + std::to_string(parsed->user)};
    }
    // Counted for its lifetime.
    const bool atOnce = ++*routes_ <= kMostAtOnce;
    const std::shared_ptr<KRLocalRoute> route(
        new KRLocalRoute({endpoint_, owner_.post, owner_.onGone, owner_.onSettled}, broker, *parsed),
        [count = routes_](KRLocalRoute* ended) {
            delete ended;
            --*count;
        });
    if (atOnce) {
        route->connectLater();
    }
    return {route, {}};
}

void KRLocalWay::post(std::function<void()> job) {
    host_.post(std::move(job));
}

void KRLocalWay::serve(std::shared_ptr<KRLocalRequest> request) noexcept {
    {
        const KRLock lock(mutex_);
        if (finishing_) {
            late_.push_back(std::move(request));
            return;
        }
        ++running_;
    }
    try {
        answer(std::move(request));
    } catch (const KRMalformed& error) {
        owner_.onMalformed(error.what());
    } catch (const std::exception& error) { // out of memory; the caller gets an error
        logError("krdds", std::string("a call is lost: ") + error.what());
    }
    const KRLock lock(mutex_);
    --running_;
    left_.notifyAll();
}

void KRLocalWay::answer(std::shared_ptr<KRLocalRequest> request) {
    KRLocalWay::Admission admission = owner_.admit(request->getCaller(), request->getCallerProcess());
    if (!admission.admitted) {
        return;
    }
    setThreadName("KRCall"); // the previous call may have changed it
    host_.serveHere(readCall(std::move(request), std::move(admission.isGone)));
}

void KRLocalWay::noticeCallerGone(const std::string& caller) noexcept {
    try {
        owner_.onCallerGone(caller);
    } catch (const std::exception& error) {
        logError("krdds", std::string("modules were not notified that a caller is gone: ") + error.what());
    }
}

void KRLocalWay::finish(std::chrono::milliseconds patience) {
    KRLock lock(mutex_);
    finishing_ = true;
    left_.waitFor(lock, patience, [this] {
        mutex_.assertHeld();
        return running_ == 0;
    });
}

void KRLocalWay::stop() noexcept {
    if (endpoint_) {
        endpoint_->stop();
    }
    std::vector<std::shared_ptr<KRLocalRequest>> late;
    const KRLock lock(mutex_);
    late.swap(late_);
}

} // namespace KR
