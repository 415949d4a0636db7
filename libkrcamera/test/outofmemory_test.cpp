// A process that runs out of memory for images.

#include "cameratest.hpp"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

std::atomic<std::size_t> largestAllocation = std::numeric_limits<std::size_t>::max();

} // namespace

// Images are allocated with an alignment.
void* operator new[](std::size_t size, std::align_val_t alignment) {
    const auto unit = static_cast<std::size_t>(alignment);
    void* memory =
        size > largestAllocation ? nullptr : std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete[](void* memory, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}

namespace KR {

class OutOfMemoryTest : public CameraTest {
protected:
    ~OutOfMemoryTest() override { largestAllocation = std::numeric_limits<std::size_t>::max(); }
};

TEST_F(OutOfMemoryTest, AFetchThatNeedsTooMuchMemoryFailsAndTheServiceContinues) {
    start({"test"});
    const std::string large = subscribe(0, 4, Space::Bgrx);
    const std::string small = subscribe(0, Resolution::QuarterVga, Space::Bgr);
    fetch(small);
    largestAllocation = 1 << 20;
    EXPECT_EQ(errorOf([&] { fetch(large); }), "getImageRemote: camera 0 (test): out of memory");
    fetch(small);
    EXPECT_EQ(proxy->getSubscribers().size(), 2U);
    largestAllocation = std::numeric_limits<std::size_t>::max();
    EXPECT_EQ(fetch(large).width, 2560);
}

} // namespace KR
