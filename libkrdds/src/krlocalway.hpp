#pragma once

#include "krddsoptions.hpp"
#include "krlocalroute.hpp"

#include <krlocal/krlocalendpoint.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krtransport.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace KR {

/// Connects a broker to others on its machine: offers connections, serves calls received through them, and creates routes.
/// Its owner discovers the other brokers; DDS carries everything else. Thread-safe after start().
class KRLocalWay : public KRLocalService {
public:
    /// Number of brokers to connect to on discovery, so that their end is noticed at once. Connections to others wait for
    /// the first call, as the total would grow with the square of the number of brokers.
    static constexpr int kMostAtOnce = 32;

    /// Whether a process may call in a broker's name.
    struct Admission {
        bool admitted = false;
        std::function<bool()> isGone; ///< whether the broker counts as gone; empty: unknown broker
    };
    /// Callbacks of the owner. Called on any thread until stop() returns; by jobs on call threads, even later.
    struct Owner {
        std::function<bool(std::function<void()> job)> post;   ///< \return whether a call thread runs it
        std::function<void(const std::string& broker)> onGone; ///< nothing listens there any more
        std::function<void(const std::string& broker)> onCallerGone; ///< its last connection has ended
        std::function<Admission(const std::string& broker, pid_t process)> admit; ///< a call
        std::function<void()> onSettled; ///< a route is open, or has failed
        std::function<void(const char* why)> onMalformed;
    };
    /// How to reach another broker on this machine.
    struct Reach {
        std::shared_ptr<KRLocalRoute> route; ///< null: not at all
        std::string reason;                  ///< human-readable reason why there is none
    };

    KRLocalWay(KRTransportHost& host, Owner owner) : host_(host), owner_(std::move(owner)) {}
    ~KRLocalWay() override { KRLocalWay::stop(); }

    /// Offers connections, unless the options forbid them. \param id  of this broker
    /// \throws KRError the group of the options does not exist
    void start(const KRDDSOptions& options, const std::string& id);
    /// Address for other brokers to connect to, as text; empty: none.
    const std::string& getAddress() const noexcept { return address_; }
    /// \param address  the broker's announced getAddress() \param process  its announced process
    Reach reach(const std::string& broker, const std::string& address, pid_t process);

    /// Waits for running calls, for at most `patience`; calls received later get no answer.
    void finish(std::chrono::milliseconds patience) KR_EXCLUDES(mutex_);
    /// Closes all connections. Call finish() before.
    void stop() noexcept KR_EXCLUDES(mutex_);

private:
    void post(std::function<void()> job) override;
    void serve(std::shared_ptr<KRLocalRequest> request) noexcept override KR_EXCLUDES(mutex_);
    void noticeCallerGone(const std::string& caller) noexcept override;
    void answer(std::shared_ptr<KRLocalRequest> request);

    KRTransportHost& host_; // not used after stop()
    const Owner owner_;
    // Constant after start().
    std::shared_ptr<KRLocalEndpoint> endpoint_; // null: off
    std::string address_;
    std::string offReason_;
    bool admitsGroup_ = false;
    const std::shared_ptr<std::atomic<int>> routes_ = std::make_shared<std::atomic<int>>(0);

    KRMutex mutex_;
    KRCondition left_;
    bool finishing_ KR_GUARDED_BY(mutex_) = false;
    int running_ KR_GUARDED_BY(mutex_) = 0;
    std::vector<std::shared_ptr<KRLocalRequest>> late_ KR_GUARDED_BY(mutex_); // fail when the connection ends
};

} // namespace KR
