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

/// What to record of a running system.
struct RecordSelection {
    std::vector<int> cameras;
    std::vector<std::string> prefixes; ///< of keys in the memory
    std::vector<std::string> events;   ///< subscribed to, which starts their extractors
    bool all = false; ///< every camera, every value, and whatever event is raised; starts no extractor
    int resolution = 2;
    int colorSpace = 9;
};

/// Fetches from a running system into a queue: a thread per camera, and one that subscribes again to each new memory module.
/// Waits for absent cameras and services. Thread-bound.
class Recorder {
public:
    /// \param queue  must outlive this
    Recorder(const boost::shared_ptr<KRBroker>& broker, const RecordSelection& selection, RecordQueue& queue);
    /// Stops. Waits for pending calls of the camera service and memory module.
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Ends the recording of all sources; does not wait for them.
    void stop() noexcept { stopping_ = true; }

private:
    class Listener;

    void recordCamera(int camera);
    /// Records until stopped, or until the service is replaced. \param said  last report about the camera
    void fetchFrom(Subscription& subscription, int camera, std::string& said);
    void watchCameras();
    void watchMemory();
    void subscribeToMemory();
    /// Reports the state of a source, if it has changed.
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
