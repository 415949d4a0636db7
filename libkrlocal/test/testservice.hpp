#pragma once

#include "krlocal/krlocalendpoint.hpp"

#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KR::test {

/// Serves requests with a function. Thread-safe. Destroy the endpoint first.
class TestService : public KRLocalService {
public:
    using Function = std::function<void(KRLocalRequest&)>;

    explicit TestService(Function function = {}) : function_(std::move(function)) {}

    void post(std::function<void()> job) override {
        const std::lock_guard lock(mutex_);
        threads_.remove_if([](std::future<void>& each) {
            return each.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
        threads_.push_back(std::async(std::launch::async, std::move(job)));
    }
    void serve(std::shared_ptr<KRLocalRequest> request) noexcept override { function_(*request); }
    void noticeCallerGone(const std::string& caller) noexcept override {
        const std::lock_guard lock(mutex_);
        gone_.push_back(caller);
    }
    std::vector<std::string> getGone() const {
        const std::lock_guard lock(mutex_);
        return gone_;
    }

private:
    const Function function_;
    mutable std::mutex mutex_;
    std::vector<std::string> gone_;        // guarded by mutex_
    std::list<std::future<void>> threads_; // guarded by mutex_; joined when they are destroyed
};

/// A binary outside every pool.
inline KRBinary makeBinary(std::size_t size, unsigned char value) {
    return KRBinary::copyOf(std::vector<unsigned char>(size, value).data(), size);
}

inline KRLocalMessage makeMessage(std::uint32_t code, std::string body, std::vector<KRBinary> binaries = {}) {
    KRLocalMessage message;
    message.code = code;
    message.body = std::move(body);
    message.binaries = std::move(binaries);
    return message;
}

} // namespace KR::test
