// A process with modules for the tests to call: krdds_server URL [KIND NAME]...
// Kinds: module (see addMethods), extractor and listener (<eventmodules.hpp>), camera (a test picture), watcher
// (subscribes to the camera) and counter (raises "Images" for each). It prints "ready" and ends with its
// standard input.

#include "sharedmemory.hpp"

#include <eventmodules.hpp>
#include <testmodule.hpp>

#include <krdds/krdds.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krthread.hpp>

#ifdef KR_WITH_CAMERA
#include <krcamera/krvideodevice.hpp>
#include <krplatform/krvideodeviceproxy.hpp>
#include <krvision/krvisionextractor.hpp>
#endif

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace KR::test {

namespace {

#ifdef KR_WITH_CAMERA
/// Fetches images of the first camera while it exists.
class Watcher : public KRModule {
public:
    Watcher(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : KRModule(std::move(broker), name), camera_(getParentBroker()),
          id_(camera_.subscribeCamera(name, 0, 2, 9, 30)) {}
    ~Watcher() override {
        shutDown();
        camera_.unsubscribe(id_);
    }

private:
    KRVideoDeviceProxy camera_;
    const std::string id_;
};

/// Raises an event for each image.
class Counter : public KRVisionExtractor {
public:
    Counter(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : KRVisionExtractor(broker, name, 1, 9, 30, 0), memory_(broker) {
        declareEvent("Images");
    }

    void xStartImageProcessing() override {}
    void xProcessImage(KRImage*) override {
        try {
            memory_.raiseEvent("Images", ++count_);
        } catch (const KRError& error) {
            logWarning("server", error.what());
        }
    }
    void xStopImageProcessing() override {}

private:
    KRMemoryProxy memory_;
    int count_ = 0;
};
#endif

class ServerModule : public TestModule {
public:
    ServerModule(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : TestModule(std::move(broker), name) {
        addMethods();
    }
    ~ServerModule() override {
        released_.set();
        shutDown();
    }

protected:
    void xCallerGone(const std::string& caller) override {
        const std::lock_guard lock(mutex_);
        gone_.push_back(caller);
    }

private:
    void addMethods() {
        add("echo", [](const KRValue& value) { return value; });
        add("getPid", [] { return static_cast<int>(getpid()); });
        add("getCaller", [this] { return xGetCaller(); });
        add("pidOf", [](const KRValue&) { return static_cast<int>(getpid()); }); // as callOther() calls it
        add("callerOf", [this](const KRValue&) { return xGetCaller(); });        // as callOther() calls it
        add("getGone", [this] {
            const std::lock_guard lock(mutex_);
            return gone_;
        });
        add("fail", [](const std::string& module, const std::string& method, const std::string& description) {
            throw KRError(module, method, description);
        });
        add("throwSomething", [] { throw std::runtime_error("it did not work"); });
        // Waits until release(), or until the module goes.
        add("block", [this] {
            blocked_++;
            return released_.wait();
        });
        add("outliveCaller", [this](const KRValue&) { // as callOther() calls it
            blocked_++;
            outlived_ = eventually([this] { return xIsCallerGone(); });
        });
        add("hasOutlivedCaller", [this] { return outlived_.load(); });
        add("countBlocked", [this] { return blocked_.load(); });
        add("release", [this] { released_.set(); });
        add("note", [this](int number) {
            const std::lock_guard lock(mutex_);
            notes_.push_back(number);
        });
        add("getNotes", [this] {
            const std::lock_guard lock(mutex_);
            return notes_;
        });
        // Calls a method with one argument of another module.
        add("callOther",
            [this](const std::string& module, const std::string& method, const KRValue& argument) {
                return getParentBroker()->getProxy(module)->call<KRValue>(method, argument);
            });
        // Down to 0 by way of the other module and its own method of this name.
        add("countDown", [this](const std::string& other, int count) {
            return count == 0
                       ? 0
                       : 1 + getParentBroker()->getProxy(other)->call<int>("countDown", getName(), count - 1);
        });
        add("isReachable", [this](const std::string& module) {
            return getParentBroker()->getSession().waitForService(module, std::chrono::milliseconds(0));
        });
        add("raiseMany", [this](const std::string& event, int count) {
            KRMemoryProxy memory(getParentBroker());
            for (int i = 0; i < count; ++i) {
                memory.raiseEvent(event, i);
            }
        });
        add("makeImage", [this](int size) {
            ++images_;
            return KRBinary::copyOf(std::string(size, 'i').data(), size);
        });
        add("allocateImage", [](int size) {
            const auto bytes = KRBinary::allocate(static_cast<std::size_t>(size));
            std::fill_n(bytes.get(), size, static_cast<unsigned char>('i'));
            return KRBinary(bytes, static_cast<std::size_t>(size));
        });
        // Fetches images from another module and keeps them; returns how many of them are in shared memory.
        add("keepImages", [this](const std::string& module, int count, int size) {
            int shared = 0;
            for (int i = 0; i < count; ++i) {
                const auto image = getParentBroker()->getProxy(module)->call<KRBinary>("allocateImage", size);
                shared += isInSharedMemory(image) ? 1 : 0;
                const std::lock_guard lock(mutex_);
                kept_.push_back(image);
            }
            return shared;
        });
        add("dropImages", [this] {
            const std::lock_guard lock(mutex_);
            kept_.clear();
        });
        add("countImages", [this] { return images_.load(); });
        // Claims the name for a module of this process. \return whether that succeeded
        add("take", [this](const std::string& name) {
            try {
                taken_ = makeModule(getParentBroker(), name);
                return true;
            } catch (const KRError&) {
                return false;
            }
        });
        add("giveBack", [this] { taken_.reset(); });
        add("exit", [this] { exit(); });
    }

    Event released_;
    KRModuleHandle<TestModule> taken_;
    std::atomic<int> blocked_ = 0;
    std::atomic<bool> outlived_ = false;
    std::atomic<int> images_ = 0;
    std::mutex mutex_;
    std::vector<int> notes_;        // guarded by mutex_
    std::vector<KRBinary> kept_;    // guarded by mutex_
    std::vector<std::string> gone_; // guarded by mutex_
};

int serve(int count, char** arguments) {
    registerDDS();
    const auto broker = KRBroker::create(arguments[1]);
    std::vector<KRModuleHandle<KRModule>> modules;
    for (int i = 2; i + 1 < count; i += 2) {
        const std::string kind = arguments[i];
        const std::string name = arguments[i + 1];
        if (kind == "module") {
            modules.emplace_back(createModule<ServerModule>(broker, name));
        } else if (kind == "extractor") {
            modules.emplace_back(createModule<FakeExtractor>(broker, name));
        } else if (kind == "listener") {
            modules.emplace_back(createModule<EventListener>(broker, name));
#ifdef KR_WITH_CAMERA
        } else if (kind == "camera") {
            modules.emplace_back(createModule<KRVideoDevice>(broker, name, std::vector<std::string>{"test"}));
        } else if (kind == "watcher") {
            broker->getSession().waitForService("KRVideoDevice");
            modules.emplace_back(createModule<Watcher>(broker, name));
        } else if (kind == "counter") {
            broker->getSession().waitForService("KRVideoDevice");
            modules.emplace_back(createModule<Counter>(broker, name));
#endif
        } else {
            std::cerr << "unknown kind " << kind << '\n';
            return 2;
        }
    }
    std::cout << "ready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    return 0;
}

} // namespace

} // namespace KR::test

int main(int count, char** arguments) {
    try {
        return count < 2 ? 2 : KR::test::serve(count, arguments);
    } catch (const std::exception& error) {
        std::cout << "failed: " << error.what() << std::endl;
        return 1;
    }
}
