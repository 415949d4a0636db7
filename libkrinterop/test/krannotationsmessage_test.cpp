#include "krinterop/krannotationsmessage.hpp"

#include "krinterop/krmcaptopics.hpp"

#include "mcapfile.hpp"
#include "temporaryfolder.hpp"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>

namespace KR {
namespace {

using Json = nlohmann::json;

KRAnnotations makeAnnotations() {
    KRAnnotations annotations;
    annotations.camera = 1;
    annotations.timeStamp = 1'500'000'000'123'456;
    annotations.boxes.push_back({0.25F, 0.5F, 0.75F, 1.0F, "face", 0.5F, 7});
    annotations.boxes.push_back({0, 0, 1, 1, "", 1, -1});
    annotations.points = {{0.5F, 0.5F}, {1.5F, -0.5F}};
    annotations.polylines.push_back({{{0, 0}, {1, 1}}, false});
    annotations.polylines.push_back({{{0, 0}, {1, 1}, {0, 1}}, true});
    annotations.texts.push_back({{0.5F, 0.25F}, "door"});
    return annotations;
}

TEST(KRAnnotationsMessage, HasCoordinatesInPixels) {
    const Json json = Json::parse(encodeAnnotations(makeAnnotations(), 640, 480));
    const Json& points = json.at("points");
    ASSERT_EQ(points.size(), 5U);
    const Json box = {{{"x", 160.0}, {"y", 240.0}},
                      {{"x", 480.0}, {"y", 240.0}},
                      {{"x", 480.0}, {"y", 480.0}},
                      {{"x", 160.0}, {"y", 480.0}}};
    EXPECT_EQ(points[0]["points"], box);
    EXPECT_EQ(points[2]["points"][1], (Json{{"x", 960.0}, {"y", -240.0}}));
    const Json time = {{"sec", 1'500'000'000}, {"nsec", 123'456'000}};
    EXPECT_EQ(points[0]["timestamp"], time);
    EXPECT_EQ(json.at("circles"), Json::array());
}

TEST(KRAnnotationsMessage, HasTheKindOfEachShape) {
    const Json json = Json::parse(encodeAnnotations(makeAnnotations(), 640, 480));
    std::vector<int> types;
    for (const Json& points : json.at("points")) {
        types.push_back(points["type"]);
    }
    EXPECT_EQ(types, (std::vector{2, 2, 1, 3, 2}));
}

TEST(KRAnnotationsMessage, LabelsBoxesWithIdentityAndScore) {
    const Json texts = Json::parse(encodeAnnotations(makeAnnotations(), 640, 480)).at("texts");
    ASSERT_EQ(texts.size(), 2U); // a box without label has no text
    EXPECT_EQ(texts[0]["text"], "face #7 50%");
    EXPECT_EQ(texts[0]["position"], (Json{{"x", 160.0}, {"y", 240.0}}));
    EXPECT_EQ(texts[1]["text"], "door");
    EXPECT_EQ(texts[1]["position"], (Json{{"x", 320.0}, {"y", 136.0}})); // its lower left corner
}

TEST(KRAnnotationsMessage, IsValidJsonForAnyAnnotations) {
    KRAnnotations annotations;
    annotations.boxes.push_back({std::numeric_limits<float>::quiet_NaN(), 0, 1, 1, "\xFF", 1, -1});
    EXPECT_FALSE(Json::parse(encodeAnnotations(annotations, 1, 1)).at("points").empty());
    EXPECT_TRUE(Json::parse(getAnnotationsSchema()).is_object());
}

TEST(KRMcapRecording, WritesAnnotationsToTheirOwnTopic) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("a.mcap");
    {
        KRMcapWriter writer(path);
        KRMcapRecording recording(writer);
        recording.writeMemory("Faces/Annotations", makeAnnotations().toKRValue(), 5); // no size known yet
        recording.setImageSize(1, 640, 480);
        recording.writeMemory("Faces/Annotations", makeAnnotations().toKRValue(), 6, 17);
        recording.writeMemory("Other/Annotations", 3, 7); // something else under such a key
        writer.close();
    }
    KRMcapReader reader(path);
    std::map<std::string, int> counts;
    for (KRMcapMessage message; reader.next(message);) {
        ++counts[message.channel->topic];
        const std::string text(message.data.begin(), message.data.end());
        if (message.channel->topic == "/Faces/annotations") {
            EXPECT_EQ(message.schema->name, "foxglove.ImageAnnotations");
            EXPECT_EQ(message.logTime, 6U);
            EXPECT_EQ(text, encodeAnnotations(makeAnnotations(), 640, 480));
        } else if (message.logTime == 6) {
            EXPECT_EQ(Json::parse(text).at("frame"), 17);
        }
    }
    EXPECT_EQ(counts, (std::map<std::string, int>{{"/Faces/annotations", 1},
                                                  {"/memory/Faces/Annotations", 2},
                                                  {"/memory/Other/Annotations", 1}}));
}

} // namespace
} // namespace KR
