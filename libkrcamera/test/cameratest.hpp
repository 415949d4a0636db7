#pragma once

#include <krcamera/krvideodevice.hpp>

#include <krplatform/krbroker.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krvideodeviceproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace KR {

// Codes used by the tests.
namespace Resolution {
constexpr int QuarterVga = 1;
constexpr int Vga = 2;
} // namespace Resolution

namespace Space {
constexpr int Luma = 0;
constexpr int Yuv422 = 9;
constexpr int Rgb = 11;
constexpr int Bgr = 13;
constexpr int Bgrx = 18;
} // namespace Space

/// The elements of an image value.
struct Image {
    explicit Image(const KRValue& value);

    const unsigned char* data() const { return pixels.data(); }
    /// The bytes of the pixel at x, y; in YUV422, if x is even, of two pixels.
    std::vector<int> at(int x, int y, int bytes = 0) const;

    int width, height, layers, colorSpace, seconds, microseconds, camera;
    std::int64_t time_usec;
    KRBinary pixels;
    std::array<float, 4> angles; ///< left, top, right, bottom
};

/// A camera service with the sources of the test, and its proxy.
class CameraTest : public testing::Test {
protected:
    void start(const std::vector<std::string>& sources);
    std::string subscribe(int camera = 0, int resolution = Resolution::Vga, int colorSpace = Space::Yuv422,
                          int frameRate = 30) {
        return proxy->subscribeCamera("test", camera, resolution, colorSpace, frameRate);
    }
    /// The next image, even of a slow camera; waits at most a minute.
    Image fetch(const std::string& id);
    /// Fetches that many images, whose time stamps must increase. \return the last one
    Image fetchInOrder(const std::string& id, int count, const std::function<void(const Image&)>& check = {});
    /// Fetches until an image satisfies the condition, for at most a minute; then the test fails.
    Image fetchUntil(const std::string& id, const std::function<bool(const Image&)>& condition);
    /// Waits until the condition is true, for at most a minute.
    void waitUntil(const std::function<bool()>& condition);

    boost::shared_ptr<KRBroker> broker = KRBroker::create();
    KRModuleHandle<KRVideoDevice> service;
    std::unique_ptr<KRVideoDeviceProxy> proxy;
};

/// "method: description" of the KRError that the function throws; also checks the module that it names.
std::string errorOf(const std::function<void()>& function);

/// A folder that is removed with the object.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

/// Runs a pipeline in gst-launch syntax to its end.
void runPipeline(const std::string& description);
/// Makes a film of ten images, 320x240, a third of a second long.
void writeFilm(const std::string& path, const std::string& pattern = "smpte");

/// Names of the threads of this process, as the kernel stores them.
std::multiset<std::string> getThreadNames();

} // namespace KR
