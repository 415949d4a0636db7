#pragma once

#include "camera/krcamera.hpp"
#include "source/krsource.hpp"

#include <krplatform/krcamerainfo.hpp>
#include <krplatform/krmutex.hpp>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace KR {

/// One camera index of the service: opens the camera for its first user and closes it after its last. Thread-safe.
/// Opening or closing one slot does not block the others.
class KRCameraSlot {
public:
    /// Initial settings, applied whenever the camera opens.
    struct InitialSettings {
        std::optional<KRSize> size; ///< minimum size
        std::vector<std::pair<std::string, int>> controls;
    };

    KRCameraSlot(int index, std::unique_ptr<KRSource> source);

    /// An open camera gets the settings at once, and controls that are no longer among them their defaults.
    void setInitialSettings(InitialSettings settings);

    /// Changes the source. \return its camera, to be opened, if there are users; null otherwise
    std::shared_ptr<KRCamera> setSource(std::unique_ptr<KRSource> source);

    int getModel() const noexcept { return getSource().getModel(); }
    /// "camera 1 (file:/tmp/a.avi)".
    std::string getTitle() const;
    KRControls& getControls() const noexcept { return getSource().getControls(); }
    KRCameraInfo getInfo() const;

    /// Adds a user and waits until the camera delivers images. The first user opens the camera; for later ones, a
    /// camera that has failed tries again at once.
    /// \param size  of the pictures that the user wants
    /// \throws std::runtime_error  the camera cannot be opened, and the user is not added; the text names camera,
    /// source and reason
    void acquire(const KRSize& size);
    /// A user wants pictures of another size.
    void want(const KRSize& size) const;
    /// Removes a user.
    void release();
    /// Closes the camera for good, even if it is in use, and wakes the threads that wait for its frames.
    void shutDown();

    /// The camera, or null if there are no users.
    std::shared_ptr<KRCamera> getCamera() const;
    bool isShutDown() const;

private:
    KRSource& getSource() const noexcept { return *source_.load(std::memory_order_acquire); }
    void close() KR_REQUIRES(usersMutex_);
    /// Sets controls. Logs those that the camera does not have or that it refuses.
    void setControls(const std::vector<std::pair<std::string, int>>& controls);
    /// Resets controls to their defaults.
    void resetControls(const std::vector<std::pair<std::string, int>>& controls);

    const int index_;
    std::atomic<KRSource*> source_; ///< the last of sources_

    KRMutex usersMutex_; ///< held while users_ changes and while the camera closes
    InitialSettings initial_ KR_GUARDED_BY(usersMutex_);
    std::vector<std::unique_ptr<KRSource>>
        sources_ KR_GUARDED_BY(usersMutex_); ///< cameras of the earlier ones may still be in use

    mutable KRMutex mutex_ KR_ACQUIRED_AFTER(usersMutex_); ///< not held while the camera opens or closes
    std::shared_ptr<KRCamera> camera_ KR_GUARDED_BY(mutex_);
    int users_ KR_GUARDED_BY(mutex_) = 0;
    bool shutDown_ KR_GUARDED_BY(mutex_) = false;
};

} // namespace KR
