#include "krplatform/krvideodeviceproxy.hpp"

#include "krplatform/krbroker.hpp"

#include "testmodule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <string>
#include <vector>

namespace KR {
namespace {

using test::makeModule;
using test::TestModule;
using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr int kIntMax = std::numeric_limits<int>::max();
constexpr int kIntMin = std::numeric_limits<int>::min();
constexpr std::array kLayers{1, 1, 1, 1, 1, 1,  1, 1, 1, 2, 3, 3, 3, 3,
                             2, 3, 3, 2, 4, 12, 2, 2, 3, 2, 3, 3, 3};

KRBinary makePixels(std::size_t size) {
    return KRBinary::copyOf(std::string(size, 'p').data(), size);
}

KRValue makeImage(int width, int height, int layers, int colorSpace, std::size_t bytes) {
    return KRValue::array(width, height, layers, colorSpace, 1500000000, 123456, makePixels(bytes), 1, 0.4f,
                          0.3f, -0.4f, -0.3f);
}

/// A camera service that serves one image, and the proxy's view of it.
class KRVideoDeviceImage : public testing::Test {
protected:
    KRValue fetch(const KRValue& image) {
        image_ = image;
        return proxy_.getImageRemote("id");
    }
    void expectPasses(const KRValue& image) { EXPECT_EQ(fetch(image), image); }
    void expectRefused(const KRValue& image, const std::string& because) {
        EXPECT_THAT([&] { fetch(image); },
                    ThrowsMessage<KRError>(AllOf(
                        HasSubstr("KRVideoDeviceProxy.getImageRemote: malformed image"), HasSubstr(because))))
            << image;
    }

private:
    KRValue image_;
    boost::shared_ptr<KRBroker> broker_ = KRBroker::create();
    KRModuleHandle<TestModule> service_ = makeModule(broker_, "KRVideoDevice", [this](TestModule& m) {
        m.add("getImageRemote", [this](const std::string&) { return image_; });
    });
    KRVideoDeviceProxy proxy_{broker_};
};

TEST_F(KRVideoDeviceImage, PixelsAreNotCopied) {
    const KRValue image = makeImage(4, 2, 3, 11, 24);
    EXPECT_EQ(fetch(image)[6].GetBinary().data(), image[6].GetBinary().data());
}

TEST_F(KRVideoDeviceImage, TheRightNumberOfLayersIsAcceptedInEveryColourSpace) {
    for (int space = 0; space < static_cast<int>(kLayers.size()); ++space) {
        const int layers = kLayers[static_cast<std::size_t>(space)];
        expectPasses(makeImage(4, 2, layers, space, static_cast<std::size_t>(8 * layers)));
        expectPasses(makeImage(4, 2, layers - 1, space, static_cast<std::size_t>(8 * layers)));
    }
}

TEST_F(KRVideoDeviceImage, OneLayerTooManyIsRefusedInEveryColourSpace) {
    for (int space = 0; space < static_cast<int>(kLayers.size()); ++space) {
        const int layers = kLayers[static_cast<std::size_t>(space)] + 1;
        expectRefused(makeImage(4, 2, layers, space, static_cast<std::size_t>(8 * layers)),
                      std::to_string(layers) + " layers, but colour space " + std::to_string(space) +
                          " has " + std::to_string(layers - 1));
    }
}

TEST_F(KRVideoDeviceImage, OneByteTooFewIsRefusedInEveryColourSpace) {
    for (int space = 0; space < static_cast<int>(kLayers.size()); ++space) {
        const int layers = kLayers[static_cast<std::size_t>(space)];
        expectRefused(makeImage(4, 2, layers, space, static_cast<std::size_t>(8 * layers - 1)),
                      "needs " + std::to_string(8 * layers) + " bytes, but there are " +
                          std::to_string(8 * layers - 1));
        expectRefused(makeImage(4, 2, layers, space, 0), "there are 0");
    }
}

TEST_F(KRVideoDeviceImage, ExtraBytesAreAccepted) {
    expectPasses(makeImage(4, 2, 3, 11, 1000));
}

TEST_F(KRVideoDeviceImage, ANegativeSizeIsRefused) {
    for (int space = -1; space <= static_cast<int>(kLayers.size()); ++space) {
        expectRefused(makeImage(-1, 2, 1, space, 100), "negative size, -1x2 with 1 layers");
        expectRefused(makeImage(4, -2, 1, space, 100), "negative size");
        expectRefused(makeImage(-4, -2, 1, space, 100), "negative size");
        expectRefused(makeImage(4, 2, -1, space, 100), "negative size");
        expectRefused(makeImage(kIntMin, kIntMin, kIntMin, space, 100), "negative size");
    }
}

TEST_F(KRVideoDeviceImage, ASizeThatOverflowsAnIntIsRefusedInEveryColourSpace) {
    for (int space = 0; space < static_cast<int>(kLayers.size()); ++space) {
        const int layers = kLayers[static_cast<std::size_t>(space)];
        expectRefused(makeImage(kIntMax, kIntMax, layers, space, 100), "too large");
        expectRefused(makeImage(65536, 65536, layers, space, 100), "too large"); // wraps to 0 in 32 bits
        expectRefused(makeImage(65536, 65536, 0, space, 100),
                      "too large"); // its buffer would be, anyway
        if (layers > 1) {
            expectRefused(makeImage(kIntMax / layers + 1, 1, layers, space, 100), "too large");
            expectRefused(makeImage(1, kIntMax / layers + 1, layers, space, 100), "too large");
        }
        expectRefused(makeImage(kIntMax / layers, 1, layers, space, 100), "but there are 100");
    }
}

TEST_F(KRVideoDeviceImage, AnEmptyImageIsAccepted) {
    expectPasses(makeImage(0, 0, 3, 11, 0));
    expectPasses(makeImage(640, 0, 3, 11, 0));
    expectPasses(makeImage(640, 480, 0, 11, 0));
}

TEST_F(KRVideoDeviceImage, ALongerArrayIsCheckedToo) {
    KRValue image = makeImage(4, 2, 3, 11, 24);
    image.arraySetSize(14);
    expectPasses(image);
    image[6].SetBinary(makePixels(23));
    expectRefused(image, "there are 23");
}

TEST_F(KRVideoDeviceImage, WhatIsNotAnImageIsLeftToTheConversion) {
    expectPasses(KRValue());
    expectPasses(5);
    expectPasses("image");
    expectPasses(makePixels(24));
    expectPasses(KRValue::array());
    KRValue image = makeImage(-4, 2, 99, 11, 0);
    image.arraySetSize(11);
    expectPasses(image);
}

TEST_F(KRVideoDeviceImage, ElementsOfTheWrongTypeAreLeftToTheConversion) {
    for (const std::size_t element : {0u, 1u, 2u, 3u, 6u}) {
        KRValue image = makeImage(4, 2, 3, 11, 24);
        image[element] = "4";
        expectPasses(image);
        image[element] = KRValue();
        expectPasses(image);
        image[element] = 4.0f;
        expectPasses(image);
    }
    KRValue image = makeImage(4, 2, 3, 11, 24);
    image[6] = std::string(24, 'p');
    expectPasses(image);
}

TEST_F(KRVideoDeviceImage, AnUnknownColourSpaceIsLeftToTheConversion) {
    for (const int space : {-1, 27, 1000, kIntMax, kIntMin}) {
        expectPasses(makeImage(4, 2, 3, space, 0));
        expectPasses(makeImage(kIntMax, kIntMax, kIntMax, space, 0));
    }
}

// The reader allocates what the geometry says and fills with zeros what the value lacks.
TEST_F(KRVideoDeviceImage, AnImageOfFewerLayersNeedsOnlyTheirPixelsAtAnySize) {
    for (int space = 0; space < static_cast<int>(kLayers.size()); ++space) {
        const int most = kIntMax / kLayers[static_cast<std::size_t>(space)]; // pixels that an int can count
        expectPasses(makeImage(most, 1, 0, space, 0));
        expectPasses(makeImage(1, most, 0, space, 0));
        if (most < kIntMax) {
            expectRefused(makeImage(most + 1, 1, 0, space, 0), "too large");
        }
    }
    expectPasses(makeImage(1000, 1000, 1, 13, 1000000));
    expectRefused(makeImage(1000, 1000, 1, 13, 999999), "needs 1000000 bytes, but there are 999999");
}

} // namespace
} // namespace KR
