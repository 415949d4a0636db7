// All operations on one camera at once, for one minute.

#include "cameratest.hpp"

#include <atomic>
#include <random>
#include <thread>

namespace KR {

class SoakTest : public CameraTest {};

// Each of eight threads fetches images of its eight subscriptions and changes the settings of any of the 64.
TEST_F(SoakTest, SixtyFourSubscribersGetTheirImagesWhileSettingsChange) {
    constexpr unsigned threadCount = 8;
    constexpr unsigned ownCount = 8;
    constexpr std::chrono::minutes duration(1);
    start({"test"});
    std::vector<std::string> ids;
    for (unsigned i = 0; i < threadCount * ownCount; ++i) {
        ids.push_back(subscribe(0, Resolution::QuarterVga));
    }
    std::atomic<int> images{0};
    const auto end = std::chrono::steady_clock::now() + duration;
    const auto run = [&](unsigned thread) {
        std::mt19937 random(thread);
        const auto below = [&random](std::size_t bound) {
            return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
        };
        const auto number = [&below](std::size_t bound) { return static_cast<int>(below(bound)); };
        std::array<std::int64_t, ownCount> last{};
        while (std::chrono::steady_clock::now() < end) {
            const std::string& any = ids[below(ids.size())];
            switch (below(8)) {
            case 0:
                EXPECT_TRUE(proxy->setResolution(any, std::array{0, 1, 2, 7, 8, 10, 16, 17}[below(8)]));
                break;
            case 1:
                EXPECT_TRUE(proxy->setColorSpace(any, std::array{0, 9, 11, 13, 18}[below(5)]));
                break;
            case 2:
                EXPECT_TRUE(proxy->setFrameRate(any, 1 + number(30)));
                break;
            case 3:
                if (below(2) == 0) {
                    EXPECT_TRUE(proxy->setCameraParameter(any, 0x00980900, number(201) - 100));
                } else {
                    proxy->setAllCameraParametersToDefault(any);
                }
                break;
            case 4:
                EXPECT_EQ(proxy->getStatistics().size(), ids.size());
                EXPECT_EQ(proxy->getSubscribers().size(), ids.size());
                break;
            default:
                const std::size_t own = below(ownCount);
                const std::string& id = ids[thread * ownCount + own];
                if (const std::string error = errorOf([&] {
                        const Image image = fetch(id); // also checks that the pixels fit the size
                        EXPECT_GT(image.time_usec, last[own]);
                        last[own] = image.time_usec;
                    });
                    error != "no error") {
                    EXPECT_THAT(error, testing::HasSubstr("no image within")); // on a busy machine
                } else {
                    ++images;
                }
                if (below(2) == 0) {
                    proxy->releaseImage(id);
                }
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back(run, thread);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(images, 100);
    EXPECT_EQ(proxy->getCameraList()[0].subscribers, static_cast<int>(ids.size()));
    for (const std::string& id : ids) {
        proxy->unsubscribe(id);
    }
    EXPECT_EQ(proxy->getCameraList()[0].state, "closed");
}

} // namespace KR
