// kr serve robot.yaml: the file

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include "serve/robotfile.hpp"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <string>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KrRobotFile : public KrSystem {
protected:
    std::string write(const std::string& text) const {
        std::ofstream(folder_.path("robot.yaml")) << text;
        return folder_.path("robot.yaml");
    }
    Outcome check(const std::string& text) const { return kr({"serve", "--check", write(text)}); }
    /// The beginning of the messages about the place "LINE:COLUMN".
    std::string at(const std::string& place) const { return folder_.path("robot.yaml") + ":" + place + ": "; }

    const TemporaryFolder folder_;
};

TEST_F(KrRobotFile, CheckReportsAllErrorsAtOnce) {
    const Outcome outcome = check("broker: dds:?domain=999\n"
                                  "camera: []\n"
                                  "cameras:\n"
                                  "  - source: nothing:x\n"
                                  "  - source: test\n"
                                  "    size: 641x480\n"
                                  "    controls: {brightnes: 3}\n"
                                  "  - source: test\n"
                                  "    controls: {hue: 200}\n"
                                  "modules:\n"
                                  "  - library: missing.so\n"
                                  "    proces: own\n"
                                  "  - library: " KR_LIBRARY_WITHOUT_MODULE "\n"
                                  "  - library: " KR_MOTION_LIBRARY "\n"
                                  "    restart: maybe\n"
                                  "  - library: " KR_MOTION_LIBRARY "\n"
                                  "  - library: " KR_MOTION_LIBRARY "\n"
                                  "    process: own\n"
                                  "subscriptions:\n"
                                  "  - {module: A, period: 0}\n"
                                  "  - {module: A, precision: 1}\n"
                                  "memory: {a: {b: 1}, c: 99999999999}\n"
                                  "record: {file: out.oxv}\n"
                                  "ros2: true\n"
                                  "log: {level: loud}\n");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, HasSubstr(at("1:9") + "broker address \"dds:?domain=999\": domain is \"999\""));
    EXPECT_THAT(outcome.out,
                HasSubstr(at("2:1") + "the file has no key \"camera\"; did you mean cameras?\n"));
    EXPECT_THAT(outcome.out, HasSubstr(at("4:5") + "camera source \"nothing:x\" is not supported"));
    EXPECT_THAT(outcome.out, HasSubstr(at("6:11") + "size 641x480 is not supported"));
    EXPECT_THAT(outcome.out, HasSubstr(at("5:5") + "the camera has no control brightnes; it has brightness"));
    EXPECT_THAT(outcome.out, HasSubstr(at("8:5") + "control hue cannot be 200; it takes -180 to 180\n"));
    EXPECT_THAT(outcome.out,
                HasSubstr(at("11:5") + folder_.path("missing.so") + ": there is no such file\n"));
    EXPECT_THAT(outcome.out,
                HasSubstr(at("12:5") + "a module has no key \"proces\"; did you mean process?\n"));
    EXPECT_THAT(outcome.out, HasSubstr(at("13:5") + KR_LIBRARY_WITHOUT_MODULE " has no module"));
    EXPECT_THAT(outcome.out, HasSubstr(at("15:14") + "restart needs true or false, not \"maybe\"\n"));
    EXPECT_THAT(outcome.out, HasSubstr(at("16:5") + "the name KRMotion is taken by the module in line 14\n"));
    EXPECT_THAT(outcome.out, HasSubstr(at("17:5") + "a module in its own process needs a name\n"));
    EXPECT_THAT(outcome.out, HasSubstr(at("20:25") + "period needs a whole number from 1, not \"0\"\n"));
    EXPECT_THAT(outcome.out, HasSubstr(at("21:5") + "a subscription with a precision needs a period\n"));
    EXPECT_THAT(outcome.out, HasSubstr(at("22:13") + "\"a\" in memory: a value cannot be an object"));
    EXPECT_THAT(outcome.out, HasSubstr(at("22:24") + "\"c\" in memory: 99999999999 does not fit"));
    EXPECT_THAT(outcome.out, HasSubstr(at("23:16") + "file of a recording needs a name that ends in .mcap"));
    EXPECT_THAT(outcome.out, HasSubstr(at("23:9") + "record needs something to record"));
    EXPECT_THAT(outcome.out, HasSubstr(at("24:7") + "ros2: this build has no bridge to ROS 2"));
    EXPECT_THAT(outcome.out, HasSubstr(at("25:14") + "\"loud\" is not a level of the log"));
    EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 20) << outcome.out;
    EXPECT_LT(outcome.out.find(at("4:5")), outcome.out.find(at("5:5"))) << "in the order of the file";
}

TEST_F(KrRobotFile, InvalidYamlIsReportedWithItsPlace) {
    const Outcome outcome = check("cameras:\n  - test\n modules: [\n");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.out, HasSubstr(at("3:2") + "is not YAML: "));
    EXPECT_THAT(check("- a\n- b\n").out, HasSubstr(at("1:1") + "the file needs keys and values, not a list"));
    EXPECT_THAT(check("log: {level: info, level: error}\n").out, HasSubstr("log has the key level twice"));
    EXPECT_THAT(check("--- {}\n--- {}\n").out, HasSubstr("second document"));
    const Outcome missing = kr({"serve", "--check", folder_.path("none.yaml")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_THAT(missing.err, HasSubstr("none.yaml: No such file"));
}

TEST_F(KrRobotFile, NothingIsServedFromAFileWithErrors) {
    const Outcome outcome = kr({"serve", write("cameras: [test]\nmoduls: []\n")});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err,
                HasSubstr(at("2:1") + "the file has no key \"moduls\"; did you mean modules?\n"));
    EXPECT_THAT(kr({"serve", "--check"}).err, HasSubstr("--check needs a file"));
    const Outcome both = kr({"serve", write(""), "--camera", "0=test"});
    EXPECT_EQ(both.exitCode, 2);
    EXPECT_THAT(both.err, HasSubstr("with a file, cameras"));
}

TEST_F(KrRobotFile, TheFilePrintedForACommandLineServesTheSame) {
    const Outcome print =
        krOnDomain({"serve", "--print", "--camera", "0=test:smpte", "--camera", "1=file:clip.mp4", "--run",
                    "Door=" KR_MOTION_LIBRARY, "--param", "threshold=0.01", "--param", "colorSpace=luma",
                    "--subscribe", "Door:100:0.5", "--subscribe", "3"});
    ASSERT_EQ(print.exitCode, 0) << print.err;
    EXPECT_EQ(print.out, "broker: " + domain_.getUrl() +
                             "\n"
                             "cameras:\n"
                             "  - source: test:smpte\n"
                             "  - source: file:" +
                             std::filesystem::current_path().string() +
                             "/clip.mp4\n"
                             "modules:\n"
                             "  - library: " KR_MOTION_LIBRARY "\n"
                             "    name: Door\n"
                             "    restart: false\n"
                             "    parameters:\n"
                             "      threshold: 0.01\n"
                             "      colorSpace: luma\n"
                             "subscriptions:\n"
                             "  - module: Door\n"
                             "    period: 100\n"
                             "    precision: 0.5\n"
                             "  - module: \"3\"\n");
    EXPECT_EQ(kr({"serve", "--print", write(print.out)}).exitCode, 1) << "clip.mp4 does not exist";
    std::string text = print.out;
    const std::string clip = "  - source: file:" + std::filesystem::current_path().string() + "/clip.mp4\n";
    text.erase(text.find(clip), clip.size());
    EXPECT_EQ(kr({"serve", "--print", write(text)}).out, text);
}

TEST_F(KrRobotFile, ValuesKeepTheirTypesInTheFile) {
    std::vector<tool::RobotProblem> problems;
    const std::string text = "broker: \"dds:\"\nmemory: {a: 1, b: 0.5, c: \"1\", d: true, e: [1, [x, ~]], f: "
                             "yes, g: \"true\", h: \"a: b\"}\n";
    const tool::Robot robot = tool::readRobotFile(write(text), problems);
    EXPECT_TRUE(problems.empty());
    tool::Json values = tool::Json::object();
    for (const auto& [key, value] : robot.memory) {
        values[key] = value;
    }
    EXPECT_EQ(values.dump(),
              R"({"a":1,"b":0.5,"c":"1","d":true,"e":[1,["x",null]],"f":"yes","g":"true","h":"a: b"})");
    EXPECT_EQ(tool::readRobotFile(write(tool::formatRobot(robot)), problems), robot)
        << tool::formatRobot(robot);
}

TEST_F(KrRobotFile, TheSchemaHasTheKeysOfTheProgram) {
    std::ifstream file(KR_SOURCE_FOLDER "/serve/robot.schema.json");
    const nlohmann::json schema = nlohmann::json::parse(file);
    const auto keysOf = [](const nlohmann::json& object) {
        EXPECT_EQ(object["additionalProperties"], false);
        std::vector<std::string> keys;
        for (const auto& [key, value] : object["properties"].items()) {
            EXPECT_TRUE(value.contains("description")) << key;
            keys.push_back(key);
        }
        return keys;
    };
    std::vector<std::string> known = tool::getRobotKeys("");
    std::erase(known, "ros2"); // refused
    EXPECT_THAT(keysOf(schema), testing::UnorderedElementsAreArray(known));
    for (const char* section : {"log", "camera", "module", "subscription", "record", "web"}) {
        EXPECT_THAT(keysOf(schema["definitions"][section]),
                    testing::UnorderedElementsAreArray(tool::getRobotKeys(section)))
            << section;
    }
}

} // namespace
} // namespace KR::test
