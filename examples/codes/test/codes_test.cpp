#include "codesextractor.hpp"

#include "patience.hpp"
#include "temporaryfolder.hpp"

#include <krcamera/krvideodevice.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krimage.hpp>
#include <krvision/kroxvfile.hpp>
#include <krvision/krvideo.hpp>
#include <krvision/krvisiondefinitions.hpp>

#include <apriltag/tag36h11.h>

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <string_view>

namespace {

using KR::test::eventually;

/// A white 640x480 picture with codes on it, as a recording of one image.
class Picture {
public:
    Picture() : image_(KR::kVGA, KR::kLumaColorSpace, false, 0.5F, 0.4F, -0.5F, -0.4F) {
        fill(0, 0, 640, 480, 235);
        image_.timeStamp = 1'500'000'000'000'000;
    }

    /// A tag of the family 36h11, 10 pixels per cell.
    void drawTag(int number, int left, int top) {
        apriltag_family_t* const family = tag36h11_create();
        image_u8_t* const tag = apriltag_to_image(family, static_cast<std::uint32_t>(number));
        for (int y = 0; y < tag->height; ++y) {
            for (int x = 0; x < tag->width; ++x) {
                fill(left + 10 * x, top + 10 * y, 10, 10, tag->buf[y * tag->stride + x] > 127 ? 235 : 16);
            }
        }
        image_u8_destroy(tag);
        tag36h11_destroy(family);
    }

    /// A bar code EAN-13, 3 pixels per module, 100 high. ISO/IEC 15420.
    void drawBarCode(std::string_view digits, int left, int top) {
        constexpr std::array<std::string_view, 10> kLeft = {"0001101", "0011001", "0010011", "0111101",
                                                            "0100011", "0110001", "0101111", "0111011",
                                                            "0110111", "0001011"};
        constexpr std::array<std::string_view, 10> kParity = {"LLLLLL", "LLGLGG", "LLGGLG", "LLGGGL",
                                                              "LGLLGG", "LGGLLG", "LGGGLL", "LGLGLG",
                                                              "LGLGGL", "LGGLGL"};
        const auto digit = [&](std::size_t i) { return static_cast<std::size_t>(digits[i] - '0'); };
        const auto complement = [](std::string_view bits) {
            std::string other;
            for (const char bit : bits) {
                other += bit == '0' ? '1' : '0';
            }
            return other;
        };
        std::string bits = "101";
        for (std::size_t i = 1; i <= 6; ++i) {
            const std::string mirrored = complement(kLeft[digit(i)]);
            bits += kParity[digit(0)][i - 1] == 'L' ? std::string(kLeft[digit(i)])
                                                    : std::string(mirrored.rbegin(), mirrored.rend());
        }
        bits += "01010";
        for (std::size_t i = 7; i <= 12; ++i) {
            bits += complement(kLeft[digit(i)]);
        }
        bits += "101";
        for (std::size_t i = 0; i < bits.size(); ++i) {
            if (bits[i] == '1') {
                fill(left + 3 * static_cast<int>(i), top, 3, 100, 16);
            }
        }
    }

    /// Saves it. \return the source string of a camera that shows it
    std::string save() const {
        KR::KROxvWriter writer(folder_.path("codes.oxv"), {{640, 480, KR::kLumaColorSpace, 8}});
        writer.write({&image_});
        writer.close();
        return "oxv:" + folder_.path("codes.oxv");
    }

private:
    void fill(int left, int top, int width, int height, unsigned char luma) {
        for (int y = top; y < top + height; ++y) {
            std::fill_n(image_.data.get() + y * image_.width + left, width, luma);
        }
    }

    const KR::test::TemporaryFolder folder_;
    KR::KRImage image_;
};

class Codes : public testing::Test {
protected:
    /// Returns once the module has processed the first image of the camera.
    void show(const std::string& source, float precision = 1.0F) {
        camera_ =
            KR::createModule<KR::KRVideoDevice>(broker_, "KRVideoDevice", std::vector<std::string>{source});
        codes_ = KR::createModule<CodesExtractor>(broker_, "Codes");
        broker_->getProxy("Codes")->call("subscribe", "test", 100, precision);
    }
    std::vector<std::string> getSeen() const {
        std::vector<std::string> seen;
        const KR::KRValue codes = memory_.getData("Codes/Codes");
        for (std::size_t i = 0; i < codes.getSize(); ++i) {
            seen.push_back(codes[i][0].to<std::string>() + " " + codes[i][1].to<std::string>());
        }
        return seen;
    }
    KR::KRAnnotations getAnnotations() const {
        return KR::KRAnnotations::fromKRValue(memory_.getData("Codes/Annotations"));
    }

    const boost::shared_ptr<KR::KRBroker> broker_ = KR::KRBroker::create("local:");
    const KR::KRMemoryProxy memory_{broker_};

private:
    KR::KRModuleHandle<KR::KRVideoDevice> camera_;
    KR::KRModuleHandle<CodesExtractor> codes_;
};

TEST_F(Codes, ReadsATagAndABarCode) {
    Picture picture;
    picture.drawTag(17, 60, 100);
    picture.drawBarCode("4006381333931", 260, 150);
    show(picture.save());
    EXPECT_EQ(getSeen(), (std::vector<std::string>{"EAN-13 4006381333931", "AprilTag 17"}));
    EXPECT_EQ(getAnnotations().polylines.size(), 2U);
    EXPECT_EQ(getAnnotations().polylines[0].points.size(), 4U);
    EXPECT_NEAR(getAnnotations().polylines[0].points[0].x, 260.0F / 640, 0.01F);
}

TEST_F(Codes, OutlinesATagWhereItIs) {
    Picture picture;
    picture.drawTag(3, 320, 240);
    show(picture.save());
    const KR::KRAnnotations seen = getAnnotations();
    ASSERT_EQ(seen.polylines.size(), 1U);
    EXPECT_TRUE(seen.polylines[0].closed);
    ASSERT_EQ(seen.polylines[0].points.size(), 4U);
    for (const auto& [x, y] : seen.polylines[0].points) { // 100 pixels with a white margin of 10
        EXPECT_TRUE(std::abs(x - 330.0F / 640) < 0.01F || std::abs(x - 410.0F / 640) < 0.01F) << x;
        EXPECT_TRUE(std::abs(y - 250.0F / 480) < 0.01F || std::abs(y - 330.0F / 480) < 0.01F) << y;
    }
    ASSERT_EQ(seen.texts.size(), 1U);
    EXPECT_EQ(seen.texts[0].text, "AprilTag 3");
}

TEST_F(Codes, RaisesAnEventForANewCode) {
    Picture picture;
    picture.drawTag(5, 100, 100);
    show(picture.save());
    EXPECT_TRUE(eventually([&] { return memory_.getDataList("Codes/CodeSeen").size() == 1; }));
    EXPECT_EQ(memory_.getData("Codes/CodeSeen")[1].to<std::string>(), "5");
    KR::KRMemoryProxy(broker_).removeData("Codes/CodeSeen");
    const std::int64_t before = memory_.getTimestamp("Codes/Codes");
    ASSERT_TRUE(eventually([&] { return memory_.getTimestamp("Codes/Codes") > before; })); // the same picture
    EXPECT_TRUE(memory_.getDataList("Codes/CodeSeen").empty());
}

TEST_F(Codes, ReadsNothingFromAPictureWithoutCodes) {
    show(Picture().save(), 0.0F);
    EXPECT_EQ(getSeen(), std::vector<std::string>{});
    EXPECT_TRUE(getAnnotations().polylines.empty());
    EXPECT_GT(getAnnotations().timeStamp, 0);
}

} // namespace
