#pragma once

#include "krcamera.hpp"
#include "krsource.hpp"

#include <memory>
#include <mutex>
#include <string>

namespace KR {

/// One camera index of the service: opens the camera for its first user and closes it after its last.
/// Thread-safe. Opening and closing one slot does not hold up the others.
class KRCameraSlot {
public:
    KRCameraSlot(int index, KRSource source) : index_(index), source_(std::move(source)) {}

    const KRSource& getSource() const noexcept { return source_; }
    /// "camera 1 (file:/tmp/a.avi)".
    std::string getTitle() const;

    /// Counts a user in. Opens the camera for the first one, and again for any later one if it has failed;
    /// those who are in already then go on with the new one. \throws std::runtime_error  the camera cannot be
    /// opened; the text names camera, source and reason
    void acquire();
    /// Counts a user out.
    void release();
    /// Closes the camera for good, whoever uses it, and wakes those who wait for its frames.
    void shutDown();

    /// The open camera, or null.
    std::shared_ptr<KRCamera> getCamera() const;
    bool isShutDown() const;

private:
    void open();
    void close();

    const int index_;
    const KRSource source_;

    std::mutex usersMutex_; ///< held while the camera opens and closes
    int users_ = 0;         ///< guarded by usersMutex_

    mutable std::mutex mutex_; ///< taken after usersMutex_, never held while the camera opens and closes
    // Guarded by mutex_:
    std::shared_ptr<KRCamera> camera_;
    std::shared_ptr<KRCamera> opening_; ///< the camera that open() waits for
    bool shutDown_ = false;
};

} // namespace KR
