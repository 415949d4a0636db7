#include "krinterop/krmcaptopics.hpp"

#include "krinterop/krimagemessage.hpp"
#include "mcapfile.hpp"

#include <bit>

namespace {

using KR::KRImage;
using KR::KRMcapReader;
using KR::KRMcapWriter;
using KR::KRValue;
using KR::test::Bytes;
using KR::test::MemoryInput;
using KR::test::MemoryOutput;
using KR::test::Read;

KRImage makeImage(int colorSpace) {
    KRImage image(4, 4, colorSpace, false, 0.5f, 0.1f, -0.5f, -0.1f);
    std::fill_n(image.data.get(), 16 * image.nbLayers, static_cast<unsigned char>(colorSpace));
    return image;
}

TEST(KRMcapTopics, AreNamedAsDocumented) {
    EXPECT_EQ(KR::getImageTopic(1), "/camera/1/image");
    EXPECT_EQ(KR::getImagePropertiesTopic(1), "/camera/1/properties");
    EXPECT_EQ(KR::getMemoryTopic("KRMotion/Share"), "/memory/KRMotion/Share");
    EXPECT_EQ(KR::getEventTopic("KRMotion/MotionDetected"), "/event/KRMotion/MotionDetected");
    EXPECT_EQ(KR::getAnnotationsTopic("KRMotion"), "/KRMotion/annotations");
    EXPECT_EQ(KR::findCameraOfImageTopic("/camera/12/image"), 12);
    EXPECT_EQ(KR::findKeyOfMemoryTopic(KR::getMemoryTopic("KRMotion/Area")), "KRMotion/Area");
    EXPECT_EQ(KR::findKeyOfMemoryTopic("/event/memory/"), std::nullopt);
    EXPECT_EQ(KR::findEventOfTopic(KR::getEventTopic("Moved")), "Moved");
    EXPECT_EQ(KR::findEventOfTopic("/memory/event/"), std::nullopt);
    EXPECT_TRUE(KR::isDescribingTopic(KR::getImagePropertiesTopic(0)));
    EXPECT_TRUE(KR::isDescribingTopic(KR::getAnnotationsTopic("KRMotion")));
    EXPECT_FALSE(KR::isDescribingTopic(KR::getImageTopic(0)));
    for (const char* other : {"/camera//image", "/camera/x/image", "/camera/-1/image", "/camera/1/images",
                              "/camera/image", "/camera/1x/image", "/camera/99999999999/image", ""}) {
        EXPECT_EQ(KR::findCameraOfImageTopic(other), std::nullopt) << other;
    }
}

TEST(KRMcapTopics, ImagesAreReadBackComplete) {
    Bytes bytes;
    KRMcapWriter writer(std::make_unique<MemoryOutput>(bytes));
    KR::KRMcapRecording recording(writer);
    std::vector<KRImage> written;
    for (int i = 0; i <= 26; ++i) {
        written.push_back(makeImage(i));
        KRImage& image = written.back();
        image.timeStamp = i == 3 ? -1 : i == 4 ? (std::int64_t{1} << 60) + 1 : 1500000000000000 + i;
        image.cameraId = static_cast<signed char>(i - 5);
        image.topAngle = i == 7   ? std::bit_cast<float>(0x7FC12345u)
                         : i == 8 ? -0.0f
                                  : 0.1f * static_cast<float>(i);
        recording.writeImage(i % 2, image, static_cast<std::uint64_t>(i));
    }
    writer.close();
    KRMcapReader reader(std::make_unique<MemoryInput>(bytes));
    KR::KRMcapImages images;
    KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
    std::size_t count = 0;
    for (KR::KRMcapMessage message; reader.next(message);) {
        if (!images.take(message, image)) {
            continue;
        }
        const KRImage& expected = written.at(count++);
        EXPECT_EQ(message.channel->topic, KR::getImageTopic(expected.colorSpace % 2));
        EXPECT_EQ(image.colorSpace, expected.colorSpace);
        EXPECT_EQ(image.timeStamp, expected.timeStamp);
        EXPECT_EQ(image.cameraId, expected.cameraId);
        EXPECT_EQ(image.leftAngle, expected.leftAngle);
        EXPECT_EQ(std::bit_cast<std::uint32_t>(image.topAngle),
                  std::bit_cast<std::uint32_t>(expected.topAngle));
        EXPECT_EQ(image.bottomAngle, expected.bottomAngle);
        EXPECT_EQ(std::memcmp(image.data.get(), expected.data.get(), 16u * image.nbLayers), 0);
    }
    EXPECT_EQ(count, written.size());
}

TEST(KRMcapTopics, ImagesOfOtherToolsAreReadWithoutProperties) {
    Bytes bytes;
    KRMcapWriter writer(std::make_unique<MemoryOutput>(bytes));
    const std::uint16_t schema = writer.addSchema("sensor_msgs/msg/Image", "ros2msg", KR::getImageSchema());
    const std::uint16_t channel = writer.addChannel("/front/image_raw", "cdr", schema);
    KRImage written = makeImage(13);
    written.timeStamp = 1234567;
    writer.write(channel, 0, 1, 1, KR::encodeImage(written));
    writer.write(channel, 1, 2, 2, Bytes{0, 1, 0, 0});
    writer.close();
    KRMcapReader reader(std::make_unique<MemoryInput>(bytes));
    KR::KRMcapImages images;
    KRImage image(1, 1, 0, true, 0.0f, 0.0f, 0.0f, 0.0f);
    KR::KRMcapMessage message;
    ASSERT_TRUE(reader.next(message));
    EXPECT_TRUE(images.take(message, image));
    EXPECT_EQ(image.timeStamp, 1234567);
    EXPECT_EQ(image.colorSpace, 13);
    ASSERT_TRUE(reader.next(message));
    EXPECT_THROW(images.take(message, image), KR::KRCdrError);
}

TEST(KRMcapTopics, ValuesAreJson) {
    Bytes bytes;
    KRMcapWriter writer(std::make_unique<MemoryOutput>(bytes));
    KR::KRMcapRecording recording(writer);
    recording.writeMemory("Share", KRValue(0.1f), 10);
    recording.writeMemory("Share", KRValue::array(1, "two", KRValue()), 11);
    recording.writeEvent("Raised", KRValue(std::string("caf\xE9")), 12);
    writer.close();
    KRMcapReader reader(std::make_unique<MemoryInput>(bytes));
    EXPECT_EQ(KR::test::readAllMessages(reader),
              (std::vector<Read>{{"/memory/Share", 0, 10, R"({"value":0.1})"},
                                 {"/memory/Share", 1, 11, R"({"value":[1,"two",null]})"},
                                 {"/event/Raised", 0, 12, "{\"value\":\"caf\xEF\xBF\xBD\"}"}}));
    EXPECT_EQ(reader.getSchemas().size(), 1u);
    EXPECT_EQ(reader.getSchemas().begin()->second.encoding, "jsonschema");
}

TEST(KRMcapTopics, MalformedPropertiesAreIgnored) {
    for (const char* text :
         {"", "7", "{}", "[]", R"({"time_stamp_usec": "x", "camera": 0, "color_space": 0})",
          R"({"time_stamp_usec": 1, "camera": 0, "color_space": 0})",
          R"({"time_stamp_usec": 1, "camera": 0, "color_space": 0, "angle_bits": [1]})"}) {
        EXPECT_FALSE(KR::decodeImageProperties(text)) << text;
    }
}

} // namespace
