#pragma once

#include "webclient.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krweb/krweb.hpp>

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace KR::test {

using Json = nlohmann::ordered_json;

/// Waits at most 20 s. \return whether it became true
inline bool becomesTrue(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

/// A broker with memory, optionally a camera service, and a web server on a free port.
class WebTest : public testing::Test {
protected:
    void startCameras(const std::vector<std::string>& sources = {"test:ball"}) {
        cameras_ = createModule<KRVideoDevice>(broker_, "KRVideoDevice", sources);
    }
    void startServer(KRWebOptions options = {}) {
        options.address = "127.0.0.1:0";
        server_ = std::make_unique<KRWebServer>(broker_, options);
    }
    int getPort() const { return server_->getPort(); }
    std::size_t countSubscriptions() const { return KRVideoDeviceProxy(broker_).getSubscribers().size(); }

    const boost::shared_ptr<KRBroker> broker_ = KRBroker::create("local:");
    KRModuleHandle<KRVideoDevice> cameras_;
    std::unique_ptr<KRWebServer> server_;
};

} // namespace KR::test
