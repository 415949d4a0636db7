#pragma once

#include "krvision/krvisiondefinitions.hpp"
#include "krvision/krvisionextractor.hpp"

#include "krplatform/krbroker.hpp"
#include "krplatform/krlog.hpp"
#include "krplatform/krmodulehandle.hpp"
#include "krplatform/krproxy.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace KR::test {

/// A log of events in order, written by several threads.
class Journal {
public:
    void add(const std::string& line) {
        const std::lock_guard lock(mutex_);
        lines_.push_back(line);
        added_.notify_all();
    }
    std::vector<std::string> get() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }
    std::ptrdiff_t count(const std::string& line) const {
        const std::lock_guard lock(mutex_);
        return std::count(lines_.begin(), lines_.end(), line);
    }
    /// Blocks until the line has been added that many times. \return false: not in time
    bool waitFor(const std::string& line, std::ptrdiff_t times = 1) const {
        std::unique_lock lock(mutex_);
        return added_.wait_for(lock, std::chrono::seconds(60),
                               [&] { return std::count(lines_.begin(), lines_.end(), line) >= times; });
    }
    /// Blocks until the line has been added that many more times from now on.
    bool waitForMore(const std::string& line, std::ptrdiff_t times = 1) const {
        return waitFor(line, count(line) + times);
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable added_;
    std::vector<std::string> lines_; // guarded by mutex_
};

inline KRValue makeImageValue(int width, int height, int layers, int colorSpace) {
    KRValue pixels;
    const std::vector<unsigned char> bytes(static_cast<std::size_t>(width * height * layers), 7);
    pixels.SetBinary(bytes.data(), bytes.size());
    return KRValue::array(width, height, layers, colorSpace, 1500000000, 123456, pixels, 1, 0.4F, 0.3F, -0.4F,
                          -0.3F);
}

/// Which settings a fake camera accepts; one that accepts everything also accepts any identifier.
enum class Acceptance { Real, Everything, Nothing };

/// A camera service for tests: records each call, and answers like the real one unless instructed otherwise.
/// It has three cameras with the parameters 11 and 12, from 0 to 100; each fetch finds a new image.
class FakeCamera : public KRModule {
public:
    FakeCamera(boost::shared_ptr<KRBroker> broker, const std::string& name, Journal& calls)
        : KRModule(std::move(broker), name), journal(calls) {
        publish("subscribeCamera", {"name", "camera", "resolution", "colorSpace", "frameRate"},
                &FakeCamera::subscribeCamera);
        publish("unsubscribe", {"id"}, &FakeCamera::unsubscribe);
        publish("getImageRemote", {"id"}, &FakeCamera::getImageRemote);
        publish("releaseImage", {"id"}, &FakeCamera::releaseImage);
        publish("setFrameRate", {"id", "value"}, &FakeCamera::setFrameRate);
        publish("getFrameRate", {"id"}, &FakeCamera::getFrameRate);
        publish("setResolution", {"id", "value"}, &FakeCamera::setResolution);
        publish("setColorSpace", {"id", "value"}, &FakeCamera::setColorSpace);
        publish("setActiveCamera", {"id", "value"}, &FakeCamera::setActiveCamera);
        publish("getCameraModel", {"camera"}, &FakeCamera::getCameraModel);
        publish("setCameraParameter", {"id", "parameter", "value"}, &FakeCamera::setCameraParameter);
        publish("setAllCameraParametersToDefault", {"id"}, &FakeCamera::setAllCameraParametersToDefault);
    }

    /// The number in the identifier is the smallest free one.
    std::string subscribeCamera(const std::string& name, int camera, int resolution, int colorSpace,
                                int frameRate) {
        std::ostringstream line;
        line << "subscribeCamera " << name << " " << camera << " " << resolution << " " << colorSpace << " "
             << frameRate;
        note("subscribeCamera", line.str());
        const auto check = [this](bool supported, const std::string& what, int value) {
            if (!takes(supported)) {
                refuse("subscribeCamera", what + " " + std::to_string(value) + " is not supported");
            }
        };
        check(isCamera(camera), "camera", camera);
        check(isResolution(resolution), "resolution", resolution);
        check(isColorSpaceValid(colorSpace), "colour space", colorSpace);
        check(isFrameRate(frameRate), "frame rate", frameRate);
        const std::lock_guard lock(mutex_);
        int number = 1;
        while (subscriptions_.count(name + "_" + std::to_string(number)) > 0) {
            ++number;
        }
        const std::string id = name + "_" + std::to_string(number);
        subscriptions_[id] = {camera, resolution, colorSpace, frameRate};
        return id;
    }
    void unsubscribe(const std::string& id) {
        note("unsubscribe", "unsubscribe " + id);
        find("unsubscribe", id);
        const std::lock_guard lock(mutex_);
        subscriptions_.erase(id);
    }
    KRValue getImageRemote(const std::string& id) {
        note("getImageRemote", "getImageRemote " + id);
        const Subscription subscription = find("getImageRemote", id);
        const std::lock_guard lock(mutex_);
        return image_.isValid() ? image_ : makeNextImage(subscription);
    }
    void releaseImage(const std::string& id) {
        note("releaseImage", "releaseImage " + id);
        find("releaseImage", id);
    }
    bool setFrameRate(const std::string& id, int value) {
        return set("setFrameRate", id, value, isFrameRate(value), &Subscription::frameRate);
    }
    int getFrameRate(const std::string& id) {
        note("getFrameRate", "getFrameRate " + id);
        const int own = find("getFrameRate", id).frameRate;
        return reportedFrameRate > 0 ? reportedFrameRate.load() : own;
    }
    bool setResolution(const std::string& id, int value) {
        return set("setResolution", id, value, isResolution(value), &Subscription::resolution);
    }
    bool setColorSpace(const std::string& id, int value) {
        return set("setColorSpace", id, value, isColorSpaceValid(value), &Subscription::colorSpace);
    }
    bool setActiveCamera(const std::string& id, int value) {
        return set("setActiveCamera", id, value, isCamera(value), &Subscription::camera);
    }
    int getCameraModel(int camera) {
        note("getCameraModel", "getCameraModel " + std::to_string(camera));
        return isCamera(camera) ? 1 : -1;
    }
    bool setCameraParameter(const std::string& id, int parameter, int value) {
        note("setCameraParameter",
             "setCameraParameter " + id + " " + std::to_string(parameter) + " " + std::to_string(value));
        find("setCameraParameter", id);
        if (!takes(parameter == 11 || parameter == 12)) {
            refuse("setCameraParameter",
                   "no parameter " + std::to_string(parameter) + "; there are 11 and 12");
        }
        return takes(value >= 0 && value <= 100);
    }
    void setAllCameraParametersToDefault(const std::string& id) {
        note("setAllCameraParametersToDefault", "setAllCameraParametersToDefault " + id);
        find("setAllCameraParametersToDefault", id);
    }

    /// What an operation does between recording the call and answering: throw, block, or nothing.
    void on(const std::string& operation, std::function<void()> action) {
        const std::lock_guard lock(mutex_);
        actions_[operation] = std::move(action);
    }
    void fail(const std::string& operation) {
        on(operation, [operation] { throw KRError("KRVideoDevice", operation, "injected"); });
    }
    /// The image for every fetch from now on.
    void setImage(const KRValue& image) {
        const std::lock_guard lock(mutex_);
        image_ = image;
    }

    std::atomic<Acceptance> acceptance = Acceptance::Real;
    std::atomic<int> reportedFrameRate = 0; ///< what getFrameRate returns; 0: the rate that was set
    Journal& journal;

private:
    template <class Member>
    void publish(const std::string& method, const std::vector<std::string>& parameters, Member member) {
        functionName(method, "FakeCamera", "");
        for (const std::string& parameter : parameters) {
            addParam(parameter, "");
        }
        advertiseMethod(getCurrentMethodDescription(), this, member);
    }
    void note(const std::string& operation, const std::string& line) {
        journal.add(line);
        std::function<void()> action;
        {
            const std::lock_guard lock(mutex_);
            action = actions_[operation];
        }
        if (action) {
            action();
        }
    }
    struct Subscription {
        int camera = 0;
        int resolution = 0;
        int colorSpace = 0;
        int frameRate = 0;
    };

    static bool isCamera(int value) { return value >= 0 && value < 3; }
    static bool isResolution(int value) { return value >= 0 && value <= 17; }
    static bool isFrameRate(int value) { return value >= 1 && value <= 30; }
    [[noreturn]] static void refuse(const std::string& method, const std::string& why) {
        throw KRError("KRVideoDevice", method, why);
    }

    Subscription find(const std::string& method, const std::string& id) {
        const std::lock_guard lock(mutex_);
        const auto found = subscriptions_.find(id);
        if (found == subscriptions_.end()) {
            if (acceptance == Acceptance::Everything) {
                return {};
            }
            refuse(method, "subscription \"" + id + "\" does not exist");
        }
        return found->second;
    }
    bool takes(bool supported) const {
        return acceptance == Acceptance::Real ? supported : acceptance == Acceptance::Everything;
    }
    bool set(const std::string& operation, const std::string& id, int value, bool supported,
             int Subscription::*setting) {
        note(operation, operation + " " + id + " " + std::to_string(value));
        find(operation, id);
        if (!takes(supported)) {
            return false;
        }
        const std::lock_guard lock(mutex_);
        subscriptions_[id].*setting = value;
        return true;
    }
    /// With mutex_ held.
    KRValue makeNextImage(const Subscription& subscription) {
        int width = 0;
        int height = 0;
        setSizeFromResolution(subscription.resolution, width, height);
        KRValue image = makeImageValue(width, height, getNumLayersInColorSpace(subscription.colorSpace),
                                       subscription.colorSpace);
        image[4] = image[4].to<int>() + ++images_;
        image[7] = subscription.camera;
        return image;
    }

    std::mutex mutex_;
    std::map<std::string, std::function<void()>> actions_; // guarded by mutex_, like the following members
    std::map<std::string, Subscription> subscriptions_;
    KRValue image_;
    int images_ = 0;
};

/// A vision extractor that records its hooks in the same journal as the camera's calls.
class TestExtractor : public KRVisionExtractor {
public:
    TestExtractor(boost::shared_ptr<KRBroker> broker, const std::string& name, Journal& hooks,
                  int resolution = 0, int colorSpace = 9, int frameRate = 30, int camera = 0)
        : KRVisionExtractor(std::move(broker), name, resolution, colorSpace, frameRate, camera),
          journal(hooks) {}

    void xStartImageProcessing() override { journal.add("xStartImageProcessing"); }
    void xProcessImage(KRImage* image) override {
        journal.add("xProcessImage");
        std::function<void(KRImage*)> action;
        {
            const std::lock_guard lock(mutex_);
            action = onImage_;
            last_ = image;
        }
        if (action) {
            action(image);
        }
    }
    void xStopImageProcessing() override { journal.add("xStopImageProcessing"); }

    /// The last image, if the run ended without deleting it.
    [[nodiscard]] std::unique_ptr<KRImage> takeUndeleted() {
        const std::lock_guard lock(mutex_);
        return std::unique_ptr<KRImage>(std::exchange(last_, nullptr));
    }

    void onImage(std::function<void(KRImage*)> action) {
        const std::lock_guard lock(mutex_);
        onImage_ = std::move(action);
    }

    Journal& journal;

private:
    std::mutex mutex_;
    std::function<void(KRImage*)> onImage_; // guarded by mutex_
    KRImage* last_ = nullptr;               // guarded by mutex_
};

/// A vision extractor named "Motion" on a fake camera service, and its log.
struct Stage {
    explicit Stage(int frameRate = 30, int cameraIndex = 0)
        : extractor(createModule<TestExtractor>(broker, "Motion", journal, 0, 9, frameRate, cameraIndex)) {
        camera->acceptance = Acceptance::Everything;
    }

    /// Level and text of each line in the category of vision extractors.
    std::vector<std::string> getLog() const {
        flushLog();
        return log->get();
    }
    bool waitForLog(const std::string& line) const { return log->waitFor(line); }

    std::shared_ptr<Journal> log = std::make_shared<Journal>();
    KRLogListener listener{[log = log](const KRLogRecord& record) {
        if (record.category == "KRVisionExtractor") {
            static const char* const levels[] = {"error", "warning", "info", "verbose"};
            log->add(std::string(levels[static_cast<int>(record.level)]) + "|" + record.message);
        }
    }};
    Journal journal;
    boost::shared_ptr<KRBroker> broker = KRBroker::create("local:");
    KRModuleHandle<FakeCamera> camera = createModule<FakeCamera>(broker, "KRVideoDevice", journal);
    KRModuleHandle<TestExtractor> extractor;
};

inline const std::string kId = "VisionExtractorMotion_1";

} // namespace KR::test
