// kr camera snapshot --annotations

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include <krvision/krimage.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

namespace KR::test {
namespace {

using testing::HasSubstr;

/// The edges of the area with the colour of boxes in an RGB image.
struct Box {
    int left = 1 << 20;
    int top = 1 << 20;
    int right = -1;
    int bottom = -1;
};

Box findBox(const KRImage& image) {
    Box box;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const unsigned char* const pixel = image.data.get() + 3 * (y * image.width + x);
            if (pixel[0] == 255 && pixel[1] == 128 && pixel[2] == 0) {
                box = {std::min(box.left, x), std::min(box.top, y), std::max(box.right, x),
                       std::max(box.bottom, y)};
            }
        }
    }
    return box;
}

class KrSnapshot : public KrSystem {
protected:
    Outcome takeSnapshot(const std::string& camera, const std::string& path) const {
        return krOnDomain(
            {"camera", "snapshot", camera, path, "--color-space", "rgb", "--annotations", "KRMotion"});
    }
    const TemporaryFolder folder_;
};

TEST_F(KrSnapshot, ShowsWhatAModuleSawInThisImage) {
    RunningProgram server =
        serve({"--camera", "0=test:ball", "--run", KR_MOTION_LIBRARY, "--subscribe", "KRMotion:30:1.0"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string path = folder_.path("ball.oxi");
    const Outcome outcome = takeSnapshot("0", path);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    KRImage image(0, 0, false, 0, 0, 0, 0);
    ASSERT_TRUE(image.readFile(path.c_str()));
    const Box box = findBox(image);
    ASSERT_GT(box.right, box.left) << "no box";
    const int centre = (box.top + box.bottom) / 2 * image.width + (box.left + box.right) / 2;
    EXPECT_GT(image.data[3 * centre], 200) << "the white ball, the only thing that moves";
    EXPECT_LT(box.right - box.left, image.width / 4);
}

TEST_F(KrSnapshot, ReportsWhyThereIsNothingToDraw) {
    RunningProgram server = serve();
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string path = folder_.path("ball.oxi");
    const Outcome missing = takeSnapshot("0", path);
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_THAT(missing.err, HasSubstr("there is no key KRMotion/Annotations"));
    const std::string other = "[1, 1, 0, 0, [], [], [], []]";
    ASSERT_EQ(krOnDomain({"memory", "set", "KRMotion/Annotations", other}).exitCode, 0);
    EXPECT_THAT(takeSnapshot("0", path).err, HasSubstr("KRMotion watches camera 1, not camera 0"));
    ASSERT_EQ(krOnDomain({"memory", "set", "KRMotion/Annotations", "7"}).exitCode, 0);
    EXPECT_EQ(takeSnapshot("0", path).exitCode, 1);
    const Outcome own = kr({"camera", "snapshot", "0", path, "--annotations", "A", "--camera", "0=test"});
    EXPECT_EQ(own.exitCode, 2);
}

} // namespace
} // namespace KR::test
