#pragma once

#include "record/recordqueue.hpp"

#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace KR::tool {

class Subscription;

/// What of a running system is to be recorded.
struct RecordSelection {
    std::vector<int> cameras;
    std::vector<std::string> prefixes; ///< of keys in the memory
    std::vector<std::string> events;   ///< subscribed to, which starts their extractors
    bool all = false; ///< every camera, every value, and whatever event is raised; starts no extractor
    int resolution = 2;
    int colorSpace = 9;
};

/// Fetches from a running system into a queue: a thread per camera, and one that subscribes to the memory module again whenever
/// there is another one. What is not there is waited for. Thread-bound.
class Recorder {
public:
    /// \param queue  must outlive this
    Recorder(const boost::shared_ptr<KRBroker>& broker, const RecordSelection& selection, RecordQueue& queue);
    /// Stops. A camera service or memory module that does not answer is waited for.
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Ends the recording of all sources; does not wait for them.
    void stop() noexcept { stopping_ = true; }

private:
    class Listener;

    void recordCamera(int camera);
    /// Until it is to stop, or the service is another one. \param said  what has been reported of the camera
    void fetchFrom(Subscription& subscription, int camera, std::string& said);
    void watchCameras();
    void watchMemory();
    void subscribeToMemory();
    /// Reports what a source has to say, unless it is the same as before.
    void report(std::string& said, const std::string& what);
    bool sleep() const;

    const boost::shared_ptr<KRBroker> broker_;
    const RecordSelection selection_;
    RecordQueue& queue_;
    std::atomic<bool> stopping_ = false;
    KRModuleHandle<Listener> listener_;
    std::vector<std::thread> cameras_; // used by cameraWatch_ while that runs
    std::thread memoryWatch_;
    std::thread cameraWatch_;
};

} // namespace KR::tool
