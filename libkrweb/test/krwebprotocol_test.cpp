#include "webtest.hpp"

#include <krinterop/krcdr.hpp>
#include <krplatform/krmodule.hpp>
#include <krvision/krannotations.hpp>
#include <krvision/krvisiondefinitions.hpp>
#include <krvision/krvisionextractor.hpp>

#include <gmock/gmock.h>

#include <set>

namespace KR {
namespace {

using namespace test;
using testing::HasSubstr;

/// Methods of all kinds.
class Sample : public KRModule {
public:
    Sample(boost::shared_ptr<KRBroker> broker, const std::string& name) : KRModule(std::move(broker), name) {
        functionName("scale", "Sample", "Multiplies.");
        addParam("value", "What is multiplied.");
        addParam("factor", "By what.");
        setReturn("product", "The product.");
        advertiseMethod(getCurrentMethodDescription(), this, &Sample::scale);
        functionName("describe", "Sample", "Describes a number.");
        addParam("number", "The number.");
        setReturn("text", "The description.");
        bindMethodOverload(createFunctor(this, &Sample::describeNumber));
        functionName("describe", "Sample", "Describes a name.");
        addParam("name", "The name.");
        addParam("loud", "Whether with an exclamation mark.");
        setReturn("text", "The description.");
        bindMethodOverload(createFunctor(this, &Sample::describeName));
        functionName("fail", "Sample", "Fails.");
        advertiseMethod(getCurrentMethodDescription(), this, &Sample::fail);
        functionName("isOdd", "Sample", "Whether a number is odd.");
        addParam("number", "The number.");
        setReturn("odd", "Whether it is.");
        advertiseMethod(getCurrentMethodDescription(), this, &Sample::isOdd);
    }
    ~Sample() override { shutDown(); }

    float scale(const float& value, const float& factor) { return value * factor; }
    std::string describeNumber(const int& number) { return "number " + std::to_string(number); }
    std::string describeName(const std::string& name, const bool& loud) { return name + (loud ? "!" : ""); }
    void fail() { throw KRError("Sample", "fail", "it is broken"); }
    bool isOdd(const int& number) { return number % 2 != 0; }
};

class Looker : public KRVisionExtractor {
public:
    Looker(boost::shared_ptr<KRBroker> broker, const std::string& name)
        : KRVisionExtractor(std::move(broker), name, kQVGA, kLumaColorSpace, 30, 0) {}
    ~Looker() override { xStopDetection(); }
    void xStartImageProcessing() override {}
    void xProcessImage(KRImage* /*image*/) override {}
    void xStopImageProcessing() override {}
};

class KRWebProtocol : public WebTest {};

TEST_F(KRWebProtocol, TheServerListsItsCapabilities) {
    startServer({.domain = "dds:?domain=7"});
    const WebClient client(getPort());
    const Json info = client.getServerInfo();
    EXPECT_EQ(info.at("supportedEncodings"), Json::array({"json"}));
    EXPECT_EQ(info.at("metadata").at("readOnly"), "false");
    EXPECT_EQ(info.at("metadata").at("domain"), "dds:?domain=7");
    const auto capabilities = info.at("capabilities").get<std::set<std::string>>();
    EXPECT_EQ(capabilities, (std::set<std::string>{"parameters", "parametersSubscribe", "services"}));
    const WebClient newer(getPort(), {}, "/", "foxglove.sdk.v1");
    EXPECT_EQ(newer.getServerInfo().at("sessionId"), info.at("sessionId"));
}

TEST_F(KRWebProtocol, AnImageIsACompressedImage) {
    startCameras();
    startServer();
    WebClient client(getPort());
    const Json channel = client.waitForChannel("/camera/0/image");
    EXPECT_EQ(channel.at("encoding"), "cdr");
    EXPECT_EQ(channel.at("schemaName"), "sensor_msgs/msg/CompressedImage");
    EXPECT_EQ(channel.at("schemaEncoding"), "ros2msg");
    const WebClient::Data data = client.readData(client.subscribe("/camera/0/image"));
    KRCdrReader reader(
        KRBytes(reinterpret_cast<const unsigned char*>(data.payload.data()), data.payload.size()));
    const auto seconds = reader.read<std::int32_t>();
    const auto nanoseconds = reader.read<std::uint32_t>();
    EXPECT_EQ(static_cast<std::uint64_t>(seconds) * 1'000'000'000 + nanoseconds, data.time_ns);
    EXPECT_EQ(reader.readString(), "camera_0");
    EXPECT_EQ(reader.readString(), "jpeg");
    const KRBytes jpeg = reader.readBytes(reader.readLength(1));
    EXPECT_EQ(reader.countBytesLeft(), 0U);
    EXPECT_EQ(jpeg[0], 0xFF);
    EXPECT_EQ(jpeg[1], 0xD8);
}

// Width of the picture, from the frame header of the JPEG.
int getWidth(const std::string& message) {
    const std::size_t start = message.find("\xFF\xC0");
    return start == std::string::npos ? -1
                                      : static_cast<unsigned char>(message.at(start + 7)) << 8 |
                                            static_cast<unsigned char>(message.at(start + 8));
}

TEST_F(KRWebProtocol, EachClientChoosesItsSize) {
    startCameras();
    startServer();
    WebClient client(getPort());
    WebClient other(getPort());
    const std::uint32_t id = client.subscribe("/camera/0/image");
    const std::uint32_t otherId = other.subscribe("/camera/0/image");
    client.sendText(R"({"op":"setParameters","id":"size","parameters":[)"
                    R"({"name":"/camera/0/image/resolution","value":"160x120"}]})");
    EXPECT_EQ(client.readText("parameterValues").at("parameters").at(0).at("value"), "160x120");
    EXPECT_TRUE(becomesTrue([&] { return getWidth(client.readData(id).payload) == 160; }));
    EXPECT_EQ(getWidth(other.readData(otherId).payload), 640);
    client.sendText(
        R"({"op":"setParameters","parameters":[{"name":"/camera/0/image/resolution","value":"1x1"}]})");
    EXPECT_THAT(client.readText("status").at("message").get<std::string>(), HasSubstr("sizes are 160x120"));
    client.sendText(R"({"op":"getParameters","id":"own","parameterNames":["/camera/0/image/color-space"]})");
    EXPECT_EQ(client.readText("parameterValues").at("parameters").at(0).at("value"), "yuv422");
}

TEST_F(KRWebProtocol, ValuesArriveAsTheyAreWritten) {
    startServer();
    KRMemoryProxy memory(broker_);
    memory.insertData("Sample/Value", 1);
    WebClient client(getPort());
    const std::uint32_t id = client.subscribe("/memory/Sample/Value");
    EXPECT_EQ(client.readJson(id).dump(), R"({"value":1})");
    memory.insertData("Sample/Value", KRValue::array("two", 2.5F));
    Json value;
    EXPECT_TRUE(becomesTrue([&] { // its first value may arrive twice
        value = client.readJson(id);
        return value.at("value") != 1;
    }));
    EXPECT_EQ(value.dump(), R"({"value":["two",2.5]})");
}

TEST_F(KRWebProtocol, ChannelsComeAndGoWithTheirKeys) {
    startServer();
    KRMemoryProxy memory(broker_);
    WebClient client(getPort());
    memory.insertData("Sample/Late", 1);
    client.waitForChannel("/memory/Sample/Late");
    memory.removeData("Sample/Late");
    EXPECT_TRUE(client.waitForNoChannel("/memory/Sample/Late"));
}

TEST_F(KRWebProtocol, ALaterClientGetsTheCurrentState) {
    startServer();
    KRMemoryProxy memory(broker_);
    WebClient first(getPort());
    memory.insertData("Sample/Late", 1);
    first.waitForChannel("/memory/Sample/Late");
    auto sample = createModule<Sample>(broker_, "Sample");
    first.waitForService("/Sample/scale");
    {
        WebClient second(getPort());
        second.waitForChannel("/memory/Sample/Late");
        second.waitForService("/Sample/scale");
    }
    memory.removeData("Sample/Late");
    EXPECT_TRUE(first.waitForNoChannel("/memory/Sample/Late"));
    sample.reset();
    EXPECT_TRUE(first.waitForNoService("/Sample/scale"));
    WebClient third(getPort());
    third.waitForService("/KRMemory/insertData"); // after the channels
    EXPECT_TRUE(third.waitForNoChannel("/memory/Sample/Late"));
    EXPECT_TRUE(third.waitForNoService("/Sample/scale"));
}

TEST_F(KRWebProtocol, EachEventArrivesOnce) {
    startServer();
    KRMemoryProxy memory(broker_);
    memory.declareEvent("Sample/Seen");
    memory.declareEvent("Sample/SeenAgain"); // begins with the other name
    WebClient client(getPort());
    const std::uint32_t seen = client.subscribe("/event/Sample/Seen");
    const std::uint32_t again = client.subscribe("/event/Sample/SeenAgain");
    memory.insertData("Sample/Probe", 0);
    client.readJson(client.subscribe("/memory/Sample/Probe")); // comes after the earlier subscriptions
    for (int i = 0; i < 10; ++i) {
        memory.raiseEvent("Sample/Seen", i);
        memory.raiseEvent("Sample/SeenAgain", i + 10);
        EXPECT_EQ(client.readJson(seen).at("value"), i);
        EXPECT_EQ(client.readJson(again).at("value"), i + 10);
    }
}

TEST_F(KRWebProtocol, AnnotationsAreInPixelsOfTheImage) {
    startServer();
    KRMemoryProxy memory(broker_);
    KRAnnotations annotations;
    annotations.timeStamp = 1'500'000'000'000'000;
    annotations.boxes.push_back({0.25F, 0.5F, 0.75F, 1.0F, "ball", 1, -1});
    memory.insertData("Finder/Annotations", annotations.toKRValue());
    WebClient client(getPort());
    EXPECT_EQ(client.waitForChannel("/Finder/annotations").at("schemaName"), "foxglove.ImageAnnotations");
    const WebClient::Data data = client.readData(client.subscribe("/Finder/annotations"));
    EXPECT_EQ(data.time_ns, 1'500'000'000'000'000'000U);
    const Json corner = Json::parse(data.payload).at("points").at(0).at("points").at(0);
    EXPECT_EQ(corner.at("x"), 160);
    EXPECT_EQ(corner.at("y"), 240);
}

TEST_F(KRWebProtocol, ANameThatLooksLikeCodeIsJustAName) {
    startServer();
    const std::string name = "<script>\"'\xFF";
    KRMemoryProxy(broker_).insertData(name, "</script>");
    WebClient client(getPort());
    const std::uint32_t id = client.subscribe("/memory/<script>\"'\xEF\xBF\xBD");
    EXPECT_EQ(client.readJson(id).at("value"), "</script>");
}

TEST_F(KRWebProtocol, ServicesAreTheMethodsOfModules) {
    startServer();
    const auto sample = createModule<Sample>(broker_, "Sample");
    WebClient client(getPort());
    const Json schema =
        Json::parse(client.waitForService("/Sample/scale").at("request").at("schema").get<std::string>());
    EXPECT_EQ(schema.at("required"), Json::array({"value", "factor"}));
    EXPECT_EQ(schema.at("properties").at("factor").at("type"), "number");
    EXPECT_EQ(client.call("/Sample/scale", {{"factor", 2}, {"value", 1.5}}).dump(), R"({"value":3.0})");
    // A whole number that does not fit 32 bits becomes a float.
    EXPECT_EQ(client.call("/Sample/scale", {{"value", 0.5}, {"factor", 4294967296}}).at("value"),
              2147483648.0);
    EXPECT_EQ(client.call("/Sample/describe", {{"number", 7}}).at("value"), "number 7");
    EXPECT_EQ(client.call("/Sample/describe", {{"name", "Ada"}, {"loud", true}}).at("value"), "Ada!");
    EXPECT_EQ(client.call("/Sample/isOdd", {{"number", 3}}).at("value"), true);
    EXPECT_THAT(client.call("/Sample/fail", Json::object()).at("failure").get<std::string>(),
                HasSubstr("it is broken"));
    EXPECT_THAT(client.call("/Sample/scale", {{"value", 2}}).at("failure").get<std::string>(),
                HasSubstr("there is: scale(float value, float factor)"));
    EXPECT_THAT(
        client.call("/Sample/isOdd", {{"number", 3}, {"loud", true}}).at("failure").get<std::string>(),
        HasSubstr("isOdd cannot be called with the arguments {number, loud}"));
}

TEST_F(KRWebProtocol, ControlsOfCamerasAreParameters) {
    startCameras();
    startServer();
    WebClient watcher(getPort());
    watcher.sendText(R"({"op":"subscribeParameterUpdates","parameterNames":["/camera/0/brightness"]})");
    const Json before = watcher.readText("parameterValues");
    EXPECT_EQ(before.at("parameters"), Json::array({{{"name", "/camera/0/brightness"}, {"value", 0}}}));
    WebClient client(getPort());
    client.sendText(
        R"({"op":"setParameters","id":"mine","parameters":[{"name":"/camera/0/brightness","value":42}]})");
    const Json answer = client.readText("parameterValues");
    EXPECT_EQ(answer.at("id"), "mine");
    EXPECT_EQ(answer.at("parameters").at(0).at("value"), 42);
    EXPECT_EQ(watcher.readText("parameterValues").at("parameters").at(0).at("value"), 42);
    EXPECT_EQ(KRVideoDeviceProxy(broker_).getControls(0).at(0).value, 42);
    client.sendText(R"({"op":"getParameters","id":"all","parameterNames":[]})");
    EXPECT_GT(client.readText("parameterValues").at("parameters").size(), 5U);
    client.sendText(R"({"op":"setParameters","parameters":[{"name":"/camera/0/brightness","value":1000}]})");
    EXPECT_THAT(client.readText("status").at("message").get<std::string>(), HasSubstr("from -100 to 100"));
}

TEST_F(KRWebProtocol, CamerasAndExtractorsReportTheirState) {
    startCameras();
    startServer();
    const auto looker = createModule<Looker>(broker_, "Looker");
    KRProxy(broker_, "Looker").call("subscribe", "me", 100, 1.0F);
    WebClient client(getPort());
    const std::uint32_t cameras = client.subscribe("/cameras");
    const std::uint32_t extractors = client.subscribe("/extractors");
    const Json state = client.readJson(cameras);
    EXPECT_EQ(state.at("service"), true);
    EXPECT_EQ(state.at("cameras").at(0).at("source"), "test:ball");
    EXPECT_EQ(state.at("cameras").at(0).at("controls").at(0).at("parameter"), "/camera/0/brightness");
    EXPECT_EQ(state.at("cameras").at(0).at("subscriptions").at(0).at("resolution"), kQVGA);
    Json extractor = client.readJson(extractors).at("extractors").at(0);
    EXPECT_TRUE(becomesTrue([&] {
        extractor = client.readJson(extractors).at("extractors").at(0);
        return extractor.contains("rate");
    }));
    EXPECT_EQ(extractor.at("name"), "Looker");
    EXPECT_EQ(extractor.at("paused"), false);
    EXPECT_EQ(extractor.at("period"), 100);
    EXPECT_EQ(extractor.at("subscribers").at(0).at("name"), "me");
    EXPECT_GT(extractor.at("rate"), 0);
    EXPECT_FALSE(client.call("/Looker/pause", {{"paused", true}}).contains("failure"));
    EXPECT_TRUE(
        becomesTrue([&] { return client.readJson(extractors).at("extractors").at(0).at("paused") == true; }));
    cameras_.reset();
    EXPECT_TRUE(becomesTrue([&] { return client.readJson(cameras).at("service") == false; }));
}

TEST_F(KRWebProtocol, AReadOnlyServerChangesNothing) {
    startCameras();
    startServer({.readOnly = true});
    const auto sample = createModule<Sample>(broker_, "Sample");
    WebClient client(getPort());
    EXPECT_EQ(client.getServerInfo().at("metadata").at("readOnly"), "true");
    EXPECT_EQ(client.getServerInfo().at("capabilities"), Json::array({"parameters", "parametersSubscribe"}));
    client.sendText(R"({"op":"setParameters","parameters":[{"name":"/camera/0/brightness","value":42}]})");
    EXPECT_THAT(client.readText("status").at("message").get<std::string>(), HasSubstr("read-only"));
    EXPECT_EQ(KRVideoDeviceProxy(broker_).getControls(0).at(0).value, 0);
    client.sendBinary(std::string("\2\1\0\0\0\1\0\0\0\4\0\0\0json{}", 19)); // whatever the channel number
    EXPECT_THAT(client.readAnswer(1).at("failure").get<std::string>(), HasSubstr("read-only"));
}

} // namespace
} // namespace KR
