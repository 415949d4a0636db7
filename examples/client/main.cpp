// doorbell [BROKER [EVENT]]: prints a line when somebody moves in front of the camera.

#include "doorbell.hpp"

#include <krdds/krdds.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krmodulehandle.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>

namespace {

/// Catches Ctrl-C and SIGTERM, so that the program can shut down. Created before any thread starts.
class EndSignals {
public:
    EndSignals() {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    }
    bool hasCome() const {
        const timespec none{};
        return sigtimedwait(&signals_, nullptr, &none) > 0;
    }
    void wait() const {
        int signal = 0;
        sigwait(&signals_, &signal);
    }

private:
    sigset_t signals_{};
};

void run(const std::string& url, const std::string& event) {
    constexpr int kPause_ms = 1000;
    const EndSignals end;
    KR::registerDDS();
    const auto broker = KR::KRBroker::create(url);
    std::fprintf(stderr, "waiting for the memory module\n");
    while (!broker->getSession().waitForService("KRMemory", std::chrono::milliseconds(500))) {
        if (end.hasCome()) {
            return;
        }
    }
    const auto bell = KR::createModule<Doorbell>(broker, "Doorbell", event, kPause_ms,
                                                 [](const std::string& name, const KR::KRValue& value) {
                                                     std::cout << name << " " << value << std::endl;
                                                 });
    std::fprintf(stderr, "waiting for %s; Ctrl-C ends it\n", event.c_str());
    end.wait();
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 3 || (argc > 1 && argv[1][0] == '-')) {
        std::fprintf(stderr, "usage: doorbell [BROKER [EVENT]]    (default: dds: KRMotion/MotionDetected)\n");
        return 2;
    }
    try {
        run(argc > 1 ? argv[1] : "dds:", argc > 2 ? argv[2] : "KRMotion/MotionDetected");
    } catch (const KR::KRError& error) {
        std::fprintf(stderr, "doorbell: %s\n", error.what());
        return 1;
    }
    return 0;
}
