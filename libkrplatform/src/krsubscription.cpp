#include "krplatform/krsubscription.hpp"

#include "krplatform/krlog.hpp"
#include "krplatform/krmutex.hpp"
#include "krplatform/krproxy.hpp"
#include "krplatform/krtext.hpp"

#include "krbroker_p.hpp"
#include "krmodulefollowers.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace KR {

namespace {

constexpr const char* kSubscriptionCategory = "krplatform.subscription";
constexpr std::chrono::seconds kFirstPause{1};
constexpr std::chrono::seconds kLongestPause{30};

} // namespace

class KRSubscription::Private : public KRModuleFollower {
public:
    Private(const boost::shared_ptr<KRBroker>& broker, const std::string& extractor, std::string client,
            std::optional<std::pair<int, float>> parameters)
        : broker_(broker), extractor_(broker, extractor), client_(std::move(client)),
          parameters_(parameters) {
        KRBrokerPrivate& p = KRBrokerPrivate::of(*broker_);
        p.followers.add(*this); // before the check, so as not to miss a module that appears in between
        try {
            start();
        } catch (...) {
            p.followers.remove(*this);
            throw;
        }
    }
    ~Private() override {
        KRBrokerPrivate::of(*broker_).followers.remove(*this);
        KRLock lock(mutex_);
        ended_ = true;
        changed_.notifyAll();
        changed_.wait(lock, [this] {
            mutex_.assertHeld();
            return !busy_;
        });
        const bool isSubscribed = isSubscribedNow();
        lock.unlock();
        if (isSubscribed) {
            unsubscribe();
        }
    }

    const std::string& getExtractor() const noexcept { return extractor_.getModuleName(); }
    bool isSubscribed() const {
        const KRLock lock(mutex_);
        return isSubscribedNow();
    }
    std::string getFailure() const {
        const KRLock lock(mutex_);
        return extractor_.getModuleNumber() != 0 ? failure_ : "";
    }

    void noticeModule(const std::string& module) noexcept override {
        if (module != getExtractor()) {
            return;
        }
        try {
            start();
        } catch (...) {
            logError(kSubscriptionCategory,
                     client_ + " is not subscribed to " + getExtractor() + ": " + describeCurrentException());
        }
    }

private:
    bool isSubscribedNow() const KR_REQUIRES(mutex_) {
        return subscribedTo_ != 0 && subscribedTo_ == extractor_.getModuleNumber();
    }

    /// Subscribes on a call thread, if there is a module and none does so already.
    void start() {
        const KRLock lock(mutex_);
        changed_.notifyAll(); // wakes a busy thread that waits before its next attempt
        if (busy_ || ended_ || extractor_.getModuleNumber() == 0 || isSubscribedNow()) {
            return; // the busy thread checks for the module before it ends
        }
        busy_ = true;
        try {
            KRBrokerPrivate::of(*broker_).post(getExtractor(), "subscribe", [this] { run(); });
        } catch (...) {
            busy_ = false;
            throw;
        }
    }

    void run() noexcept {
        try {
            subscribeUntilAccepted();
        } catch (...) { // out of memory; retried with the next module of this name
            logError(kSubscriptionCategory, "a subscription is given up");
            const KRLock lock(mutex_);
            busy_ = false;
            changed_.notifyAll();
        }
    }

    void subscribeUntilAccepted() {
        std::chrono::seconds pause = kFirstPause;
        for (;;) {
            std::uint32_t number = 0;
            {
                const KRLock lock(mutex_);
                number = extractor_.getModuleNumber();
                if (ended_ || number == 0 || number == subscribedTo_) {
                    busy_ = false;
                    changed_.notifyAll(); // the last access: the destructor may be waiting for it
                    return;
                }
            }
            const std::string reason = subscribe();
            KRLock lock(mutex_);
            if (reason.empty()) {
                subscribedTo_ = number;
                failure_.clear();
            } else if (extractor_.getModuleNumber() == number) {
                report(reason);
                changed_.waitFor(lock, pause, [&] {
                    mutex_.assertHeld();
                    return ended_ || extractor_.getModuleNumber() != number;
                });
                pause = std::min(pause * 2, kLongestPause);
            }
        }
    }

    /// \return reason of the refusal; empty if accepted
    std::string subscribe() {
        try {
            if (parameters_) {
                extractor_.call("subscribe", client_, parameters_->first, parameters_->second);
            } else {
                extractor_.call("subscribe", client_);
            }
            return {};
        } catch (const KRError& error) {
            unsubscribe(); // it may have kept the subscriber despite the error
            return error.getDescription().empty() ? "it gives no reason" : error.getDescription();
        } catch (...) {
            const std::string reason = describeCurrentException();
            unsubscribe();
            return reason.empty() ? "it gives no reason" : reason;
        }
    }
    void unsubscribe() noexcept {
        try {
            extractor_.call("unsubscribe", client_);
        } catch (...) { // it is gone, or had not kept the subscriber
            logVerbose(kSubscriptionCategory, describeCurrentException());
        }
    }
    void report(const std::string& reason) KR_REQUIRES(mutex_) {
        if (failure_ != reason) {
            logWarning(kSubscriptionCategory, getExtractor() + " refuses the subscription of " + client_ +
                                                  ", which is repeated: " + reason);
        }
        failure_ = reason;
    }

    const boost::shared_ptr<KRBroker> broker_;
    const KRProxy extractor_;
    const std::string client_;
    const std::optional<std::pair<int, float>> parameters_; // period and precision

    mutable KRMutex mutex_;
    KRCondition changed_;
    bool ended_ KR_GUARDED_BY(mutex_) = false;
    bool busy_ KR_GUARDED_BY(mutex_) = false;              // run() runs
    std::uint32_t subscribedTo_ KR_GUARDED_BY(mutex_) = 0; // number of the module
    std::string failure_ KR_GUARDED_BY(mutex_);
};

KRSubscription::KRSubscription(const boost::shared_ptr<KRBroker>& broker, const std::string& extractor,
                               const std::string& client)
    : p_(std::make_unique<Private>(broker, extractor, client, std::nullopt)) {}

KRSubscription::KRSubscription(const boost::shared_ptr<KRBroker>& broker, const std::string& extractor,
                               const std::string& client, int period, float precision)
    : p_(std::make_unique<Private>(broker, extractor, client, std::pair(period, precision))) {}

KRSubscription::~KRSubscription() = default;
KRSubscription::KRSubscription(KRSubscription&&) noexcept = default;
KRSubscription& KRSubscription::operator=(KRSubscription&&) noexcept = default;

const std::string& KRSubscription::getExtractor() const noexcept {
    return p_->getExtractor();
}

bool KRSubscription::isSubscribed() const {
    return p_->isSubscribed();
}

std::string KRSubscription::getFailure() const {
    return p_->getFailure();
}

} // namespace KR
