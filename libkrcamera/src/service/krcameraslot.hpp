#pragma once

#include "camera/krcamera.hpp"
#include "source/krsource.hpp"

#include <krplatform/krcamerainfo.hpp>

#include <memory>
#include <mutex>
#include <string>

namespace KR {

/// One camera index of the service: opens the camera for its first user and closes it after its last.
/// Thread-safe. Opening and closing one slot does not hold up the others.
class KRCameraSlot {
public:
    KRCameraSlot(int index, std::unique_ptr<KRSource> source);

    int getModel() const noexcept { return source_->getModel(); }
    /// "camera 1 (file:/tmp/a.avi)".
    std::string getTitle() const;
    KRControls& getControls() noexcept { return source_->getControls(); }
    KRCameraInfo getInfo() const;

    /// Counts a user in, once the camera delivers: opens it for the first one, and has it try again at once for any
    /// later one if it has failed. \param size  of the pictures that the user wants \throws std::runtime_error  the camera cannot be opened, and the user is
    /// not counted; the text names camera, source and reason
    void acquire(const KRSize& size);
    /// A user wants pictures of another size.
    void want(const KRSize& size) const;
    /// Counts a user out.
    void release();
    /// Closes the camera for good, whoever uses it, and wakes those who wait for its frames.
    void shutDown();

    /// The camera while there are users, or null.
    std::shared_ptr<KRCamera> getCamera() const;
    bool isShutDown() const;

private:
    void close();

    const int index_;
    const std::unique_ptr<KRSource> source_;

    std::mutex usersMutex_; ///< held while the camera closes

    mutable std::mutex mutex_; ///< taken after usersMutex_, never held while the camera opens and closes
    // Guarded by mutex_; users_ changes with usersMutex_ held, too.
    std::shared_ptr<KRCamera> camera_;
    int users_ = 0;
    bool shutDown_ = false;
};

} // namespace KR
