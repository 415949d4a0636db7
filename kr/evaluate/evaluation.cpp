#include "evaluate/evaluation.hpp"

#include "recording/absentfeed.hpp"
#include "system/valuejson.hpp"
#include "tool/command.hpp"
#include "tool/interruption.hpp"

#include <krcamera/krimagefeed.hpp>
#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krmemoryobserver.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krmutex.hpp>
#include <krplatform/krproxy.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <stdexcept>

#include <unistd.h>

namespace KR::tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kSubscriber = "kr evaluate";
constexpr std::chrono::milliseconds kPoll{10};
constexpr std::chrono::seconds kTimeToStop{2}; // for a module, after an interruption

/// What has happened so far. Thread-safe.
class Protocol {
public:
    Protocol(const std::vector<ResultSink*>& sinks, Progress& progress)
        : sinks_(sinks), progress_(progress) {}

    /// The module fetches, so it has finished with the previous image. Blocks until it may get the next one.
    /// \throws std::runtime_error it may not
    void noteFetch() {
        KRLock lock(mutex_);
        endProcessing();
        // The subscription waits for the first image; all other images wait for the subscription.
        changed_.wait(lock, [this] {
            mutex_.assertHeld();
            return outcome_.images == 0 || open_;
        });
        if (!outcome_.failure.empty()) {
            throw std::runtime_error("the evaluation has ended: " + outcome_.failure);
        }
    }
    void noteImage(std::uint64_t frame, int camera, const KRImage& image, bool isLast) {
        const KRLock lock(mutex_);
        frame_ = frame;
        timeStamp_ = image.timeStamp;
        for (ResultSink* sink : sinks_) {
            tryTo([&] { sink->beginFrame(frame, camera, image.width, image.height); });
        }
        ++outcome_.images;
        isLastHandedOver_ = isLast;
        progress_.advance();
        processingSince_ = Clock::now();
        began_ = began_.value_or(*processingSince_);
        changed_.notifyAll();
    }
    void noteWrite(const KRMemoryWrite& write) noexcept {
        const KRLock lock(mutex_);
        if (outcome_.images == 0) {
            return; // what it declares belongs to no image
        }
        ++(write.isEvent ? outcome_.events : outcome_.values);
        const std::uint64_t frame = frame_;
        const std::int64_t timeStamp = timeStamp_;
        for (ResultSink* sink : sinks_) {
            tryTo([&] { sink->take({frame, timeStamp, write.isEvent, write.name, write.value}); });
        }
    }
    /// Only the first failure counts. \param where  whether to say in which frame
    void fail(const std::string& failure, bool where) {
        const KRLock lock(mutex_);
        setFailure(failure + (where && outcome_.images > 0 ? " in frame " + std::to_string(frame_) : ""));
    }
    void addLosses(const std::vector<std::string>& losses) {
        const KRLock lock(mutex_);
        outcome_.losses.insert(outcome_.losses.end(), losses.begin(), losses.end());
    }
    /// Lets the module have all images.
    void open() {
        const KRLock lock(mutex_);
        open_ = true;
        changed_.notifyAll();
    }
    bool hasImages() const {
        const KRLock lock(mutex_);
        return outcome_.images > 0;
    }
    bool hasFailed() const {
        const KRLock lock(mutex_);
        return !outcome_.failure.empty();
    }
    bool isLastHandedOver() const {
        const KRLock lock(mutex_);
        return isLastHandedOver_;
    }
    std::uint64_t getFrame() const {
        const KRLock lock(mutex_);
        return frame_;
    }
    /// Waits until there is something to do, for a short time at most.
    void wait() {
        KRLock lock(mutex_);
        changed_.waitFor(lock, kPoll, [this] {
            mutex_.assertHeld();
            return isLastHandedOver_ || !outcome_.failure.empty();
        });
    }
    /// The module has stopped. \return the result
    EvaluationOutcome end() {
        const KRLock lock(mutex_);
        endProcessing();
        if (began_) {
            outcome_.seconds = std::chrono::duration<double>(ended_ - *began_).count();
        }
        return outcome_;
    }

private:
    void endProcessing() KR_REQUIRES(mutex_) {
        if (processingSince_) {
            ended_ = Clock::now();
            outcome_.processing_ms.push_back(
                std::chrono::duration<float, std::milli>(ended_ - *processingSince_).count());
            processingSince_.reset();
        }
    }
    // Errors of sinks must not reach the writing module.
    template <class Function>
    void tryTo(Function function) KR_REQUIRES(mutex_) {
        if (!outcome_.failure.empty()) {
            return;
        }
        try {
            function();
        } catch (...) {
            setFailure(describeCurrentException());
        }
    }
    void setFailure(const std::string& failure) KR_REQUIRES(mutex_) {
        if (outcome_.failure.empty()) {
            outcome_.failure = failure;
        }
        changed_.notifyAll();
    }

    const std::vector<ResultSink*> sinks_;
    mutable KRMutex mutex_;
    KRCondition changed_;
    Progress& progress_ KR_GUARDED_BY(mutex_);
    EvaluationOutcome outcome_ KR_GUARDED_BY(mutex_);
    std::uint64_t frame_ KR_GUARDED_BY(mutex_) = 0;
    std::int64_t timeStamp_ KR_GUARDED_BY(mutex_) = 0;
    bool open_ KR_GUARDED_BY(mutex_) = false;
    bool isLastHandedOver_ KR_GUARDED_BY(mutex_) = false;
    std::optional<Clock::time_point> began_ KR_GUARDED_BY(mutex_);
    Clock::time_point ended_ KR_GUARDED_BY(mutex_);
    std::optional<Clock::time_point> processingSince_ KR_GUARDED_BY(mutex_);
};

/// A recorded camera, each of whose images is handed over once.
class RecordedFeed : public KRImageFeed {
public:
    RecordedFeed(const RecordedImages& recording, std::size_t index, Protocol& protocol)
        : recording_(recording), index_(index), camera_(recording.getCameras()[index]), protocol_(protocol) {}

    std::string getText() const override { return "recording:" + camera_.text; }
    void open() override {}
    Image waitForImage(std::uint64_t after, Clock::time_point /*deadline*/) override {
        protocol_.noteFetch();
        const KRLock lock(mutex_);
        if (!reader_ || after != number_) { // a subscription begins, or another one reads as well
            reader_ = recording_.read(index_);
            number_ = 0;
            next_ = read();
            while (next_ && number_ < after) {
                ++number_;
                next_ = read();
            }
        }
        if (!next_) {
            if (number_ == 0) {
                protocol_.fail("there is no readable image of " + camera_.text, false);
                protocol_.addLosses(reader_->getLosses());
            }
            throw std::runtime_error("the recording has ended");
        }
        // Reads one image ahead, to know whether an image is the last one when it is delivered.
        std::optional<KRImage> image = std::move(next_);
        next_ = read();
        ++number_;
        protocol_.noteImage(number_ - 1, camera_.number, *image, !next_);
        if (!next_) {
            protocol_.addLosses(reader_->getLosses());
        }
        return {number_, std::move(image), !next_};
    }

private:
    std::optional<KRImage> read() KR_REQUIRES(mutex_) {
        try {
            return reader_->next();
        } catch (const std::exception& error) {
            protocol_.fail(error.what(), false);
            return std::nullopt;
        }
    }

    const RecordedImages& recording_;
    const std::size_t index_;
    const RecordedCamera camera_;
    Protocol& protocol_;
    KRMutex mutex_;
    std::unique_ptr<ImageReader> reader_ KR_GUARDED_BY(mutex_);
    std::uint64_t number_ KR_GUARDED_BY(mutex_) = 0; // of the image handed over last
    std::optional<KRImage> next_ KR_GUARDED_BY(mutex_);
};

std::vector<std::shared_ptr<KRImageFeed>> makeFeeds(const RecordedImages& recording, Protocol& protocol) {
    const std::vector<RecordedCamera>& cameras = recording.getCameras();
    std::string present;
    for (const RecordedCamera& camera : cameras) {
        present += (present.empty() ? "" : ", ") + std::to_string(camera.number);
    }
    std::vector<std::shared_ptr<KRImageFeed>> feeds;
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        while (feeds.size() < static_cast<std::size_t>(cameras[i].number)) {
            feeds.push_back(
                std::make_shared<AbsentFeed>("the recording has the cameras " + present + " only"));
        }
        feeds.push_back(std::make_shared<RecordedFeed>(recording, i, protocol));
    }
    return feeds;
}

void callMethods(const KRProxy& module, const EvaluationSettings& settings) {
    for (const std::vector<std::string>& call : settings.calls) {
        std::vector<KRValue> arguments;
        for (std::size_t i = 1; i < call.size(); ++i) {
            arguments.push_back(readValue(call[i]));
        }
        const std::string& method = call.at(0);
        KRValue result;
        try {
            result = module.callValues(method, arguments);
        } catch (const KRError& error) {
            throw std::runtime_error(module.getModuleName() + "." + method + ": " + error.getDescription());
        }
        // A bool travels as an int; only the method's description tells them apart.
        const auto methods = module.getMethodList();
        const bool isRefused = std::ranges::any_of(methods, [&](const KRMethodDescription& description) {
            return description.name == method && description.argumentTypes.size() == arguments.size() &&
                   description.resultType == KRArgumentType::Bool && result == KRValue(false);
        });
        if (isRefused) {
            throw std::runtime_error(module.getModuleName() + " refuses " + method + " with " +
                                     (call.size() > 1 ? call[1] : "these arguments"));
        }
    }
}

/// Waits for work that an interruption cannot wake. If the module hangs after one, ends the program.
template <class Work>
void doOrGiveUp(const std::string& module, Interruption& interruption, Protocol& protocol, Work work) {
    std::optional<Clock::time_point> end;
    auto done = std::async(std::launch::async, std::move(work));
    while (done.wait_for(kPoll) != std::future_status::ready) {
        if (!end && interruption.hasCome()) {
            protocol.fail("interrupted", true);
            protocol.open(); // wakes a fetch
            end = Clock::now() + kTimeToStop;
        }
        if (end && Clock::now() > *end) {
            printError("module " + module + " does not stop, in frame " +
                       std::to_string(protocol.getFrame()));
            ::_exit(static_cast<int>(ExitCode::Failed));
        }
    }
    done.get();
}

} // namespace

EvaluationOutcome
evaluate(const RecordedImages& recording,
         const std::function<KRModuleHandle<KRModule>(const boost::shared_ptr<KRBroker>&)>& makeModule,
         const EvaluationSettings& settings, const std::vector<ResultSink*>& sinks, Progress& progress,
         Interruption& interruption) {
    Protocol protocol(sinks, progress);
    const auto broker = KRBroker::create("local:?clock=recording");
    const auto cameras = createModule<KRVideoDevice>(broker, "KRVideoDevice", makeFeeds(recording, protocol));
    auto module = makeModule(broker);
    const std::string name = module->getName();
    setMemoryObserver(*broker, [&protocol](const KRMemoryWrite& write) { protocol.noteWrite(write); });
    const KRProxy proxy(broker, name);
    callMethods(proxy, settings);
    doOrGiveUp(name, interruption, protocol, [&] {
        try {
            if (settings.subscription) {
                proxy.call("subscribe", kSubscriber, settings.subscription->first,
                           settings.subscription->second);
            } else {
                proxy.call("subscribe", kSubscriber);
            }
        } catch (const KRError& error) {
            // A failing acquisition may have reported its reason there.
            protocol.fail("subscribing to " + name + " failed: " +
                              (module->getFailure().empty() ? error.getDescription() : module->getFailure()),
                          true);
        }
    });
    const auto checkModule = [&] {
        if (!module->getFailure().empty()) {
            protocol.fail("module " + name + " has failed: " + module->getFailure(), true);
        } else if (module->isExiting()) {
            protocol.fail("module " + name + " has exited by itself", true);
        }
    };
    checkModule();
    if (!protocol.hasImages() && !protocol.hasFailed()) {
        protocol.fail("module " + name + " has fetched no image; is it a vision extractor?", false);
    }
    protocol.open();
    while (!protocol.isLastHandedOver() && !protocol.hasFailed()) {
        protocol.wait();
        checkModule();
        if (interruption.hasCome()) {
            protocol.fail("interrupted", true);
        }
    }
    doOrGiveUp(name, interruption, protocol, [&] {
        try {
            proxy.call("unsubscribe", kSubscriber); // returns once the last image has been processed
        } catch (const KRError&) {                  // NOLINT(bugprone-empty-catch): it is exiting
        }
    });
    protocol.end();
    checkModule();
    doOrGiveUp(name, interruption, protocol, [&] { module.reset(); });
    setMemoryObserver(*broker, {});
    return protocol.end();
}

} // namespace KR::tool
