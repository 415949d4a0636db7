// kr param, and parameters given to kr run and kr serve

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <string>

namespace KR::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class KrParam : public KrSystem {
protected:
    std::string get(const std::string& module, const std::string& name) const {
        return krOnDomain({"param", "get", module, name}).out;
    }
    static std::string write(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
        return path;
    }
    static json read(const std::string& path) {
        const Bytes bytes = readAll(path);
        return json::parse(std::string(bytes.begin(), bytes.end()));
    }

    const TemporaryFolder folder_;
};

TEST_F(KrParam, ShowsSetsAndReadsTheParametersOfAnotherProcess) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(krOnDomain({"param", "set", "KRMotion", "threshold", "0.25"}).exitCode, 0);
    EXPECT_EQ(get("KRMotion", "threshold"), "0.25\n");
    EXPECT_EQ(krOnDomain({"param", "set", "KRMotion", "resolution", "640x480"}).exitCode, 0);
    EXPECT_EQ(get("KRMotion", "resolution"), "\"640x480\"\n");
    EXPECT_EQ(krOnDomain({"call", "KRMotion", "getResolution"}).out, "2\n");
    EXPECT_EQ(get("KRMotion", "pause"), "false\n");

    EXPECT_THAT(krOnDomain({"param", "list"}).out,
                AllOf(HasSubstr("KRMotion.camera      0        a whole number from 0 to 99\n"),
                      HasSubstr("KRMotion.threshold   0.25     a number from 0 to 1 of the pixels\n")));
    EXPECT_THAT(krOnDomain({"param", "describe", "KRMotion", "threshold"}).out,
                AllOf(HasSubstr("threshold (float)\n"), HasSubstr("Share of the pixels"),
                      HasSubstr("takes a number from 0 to 1 of the pixels\n"),
                      HasSubstr("is 0.25, at the start 0.001\n")));
    const json list = json::parse(krOnDomain({"param", "list", "KRMotion", "--json"}).out);
    ASSERT_EQ(list.size(), 6U);
    EXPECT_EQ(list[4]["name"], "pause");
    EXPECT_EQ(list[4]["value"], false);
    EXPECT_EQ(list[5]["value"], 0.25);
    EXPECT_EQ(list[5]["maximum"], 1.0);
}

TEST_F(KrParam, ReportsWhyAParameterIsRefused) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const auto fail = [&](const std::string& name, const std::string& value) {
        const Outcome outcome = krOnDomain({"param", "set", "KRMotion", name, value});
        EXPECT_EQ(outcome.exitCode, 1);
        return outcome.err;
    };
    EXPECT_THAT(fail("threshold", "2"),
                HasSubstr("threshold cannot be 2; it takes a number from 0 to 1 of the pixels"));
    EXPECT_THAT(fail("colorSpace", "purple"), HasSubstr("it takes one of luma, YUV422, RGB, BGR, BGRx"));
    EXPECT_THAT(fail("camera", "7"),
                HasSubstr("camera cannot be 7 now: camera 7 does not exist; there is camera 0 only"));
    EXPECT_THAT(fail("pause", "true"),
                HasSubstr("pause cannot be true now: nothing is processed while nobody is subscribed"));
    EXPECT_THAT(fail("treshold", "0.1"), HasSubstr("there is no parameter treshold; parameters are camera"));
    const Outcome unknown = krOnDomain({"param", "get", "KRMotion", "treshold"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_THAT(unknown.err, HasSubstr("KRMotion has no parameter treshold; parameters are camera"));
}

TEST_F(KrParam, LoadsWhatItSaved) {
    RunningProgram server = serve({"--run", "Left=" KR_MOTION_LIBRARY, "--run", "Right=" KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    ASSERT_EQ(krOnDomain({"param", "set", "Left", "threshold", "0.5"}).exitCode, 0);
    ASSERT_EQ(krOnDomain({"param", "set", "Right", "colorSpace", "luma"}).exitCode, 0);
    const std::string file = folder_.path("robot.json");
    ASSERT_EQ(krOnDomain({"param", "save", file}).exitCode, 0);
    const json saved = read(file);
    EXPECT_EQ(saved.at("Left").at("threshold"), 0.5) << saved;
    EXPECT_EQ(saved.at("Right").at("colorSpace"), "luma") << saved;
    EXPECT_FALSE(saved.at("Left").contains("pause")) << saved;

    ASSERT_EQ(krOnDomain({"param", "set", "Left", "threshold", "0.75"}).exitCode, 0);
    const Outcome loaded = krOnDomain({"param", "load", file});
    EXPECT_EQ(loaded.exitCode, 0) << loaded.err;
    EXPECT_EQ(get("Left", "threshold"), "0.5\n");

    ASSERT_EQ(krOnDomain({"param", "save", file, "Right"}).exitCode, 0);
    EXPECT_EQ(read(file).size(), 1U);
}

TEST_F(KrParam, AFileWithErrorsIsNotApplied) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string file = write(
        folder_.path("bad.json"),
        R"({"KRMotion": {"threshold": 7, "size": 3, "frameRate": 20}, "KRNobody": {"threshold": 0.5}})");
    const Outcome outcome = krOnDomain({"param", "load", file});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("bad.json: nothing is set\n"),
                                   HasSubstr("\nKRMotion: threshold cannot be 7; "),
                                   HasSubstr("\nKRMotion: there is no parameter size\n"),
                                   HasSubstr("\nthere is no module KRNobody"), Not(HasSubstr("frameRate"))));
    EXPECT_EQ(get("KRMotion", "frameRate"), "30\n");
    for (const char* text : {"", "[]", "3", R"({"KRMotion": 3})", R"({"KRMotion": {"threshold": {}}})"}) {
        const Outcome other = krOnDomain({"param", "load", write(folder_.path("other.json"), text)});
        EXPECT_EQ(other.exitCode, 1) << text;
        EXPECT_THAT(other.err, HasSubstr("other.json: ")) << text;
    }
    EXPECT_THAT(krOnDomain({"param", "load", folder_.path("missing.json")}).err,
                HasSubstr("missing.json: No such file"));
}

TEST_F(KrParam, RefusedValuesAreReportedAndTheRestIsSet) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string file =
        write(folder_.path("refused.json"), R"({"KRMotion": {"camera": 7, "threshold": 0.5}})");
    const Outcome outcome = krOnDomain({"param", "load", file});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("camera cannot be 7 now: camera 7 does not exist"));
    EXPECT_EQ(get("KRMotion", "threshold"), "0.5\n");
}

TEST_F(KrParam, ModulesStartWithTheValuesOfTheCommandLine) {
    RunningProgram server = serve({"--camera", "0=test", "--camera", "1=test"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string file = write(folder_.path("robot.json"),
                                   R"({"Door": {"threshold": 0.5, "camera": 1}, "Other": {"size": 3}})");
    RunningProgram host(onDomain({"run", KR_MOTION_LIBRARY, "--name", "Door", "--param-file", file, "--param",
                                  "threshold=0.25", "--param", "Door.colorSpace=luma"}),
                        "module Door runs");
    ASSERT_TRUE(host.isUp()) << host.readErr();
    EXPECT_THAT(host.readErr(), HasSubstr("robot.json: left out what is for Other, not hosted here"));
    EXPECT_EQ(get("Door", "threshold"), "0.25\n") << "--param takes precedence over the file";
    EXPECT_EQ(get("Door", "camera"), "1\n");
    EXPECT_EQ(get("Door", "colorSpace"), "\"luma\"\n");
}

TEST_F(KrParam, TheCameraCanBeSetBeforeTheServiceExists) {
    const auto broker = domain_.createBroker("lease=30&memory=here");
    RunningProgram host(onDomain({"run", KR_MOTION_LIBRARY, "--param", "camera=1"}), "module KRMotion runs");
    ASSERT_TRUE(host.isUp()) << host.readErr();
    EXPECT_EQ(get("KRMotion", "camera"), "1\n");
}

TEST_F(KrParam, NoModuleRunsWithoutTheRequestedValues) {
    const auto broker = domain_.createBroker("lease=30&memory=here");
    const Outcome outcome =
        krOnDomain({"run", KR_MOTION_LIBRARY, "--param", "threshold=7", "--param", "size=3"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("no module KRMotion of " KR_MOTION_LIBRARY),
                                   HasSubstr("threshold cannot be 7; it takes a number from 0 to 1"),
                                   HasSubstr("there is no parameter size")));
    EXPECT_THAT(krOnDomain({"module", "list"}).out, Not(HasSubstr("KRMotion")));
    const std::string file = write(folder_.path("other.json"), R"({"Other": {"threshold": 0.5}})");
    const Outcome other = krOnDomain({"run", KR_MOTION_LIBRARY, "--param-file", file});
    EXPECT_EQ(other.exitCode, 1);
    EXPECT_THAT(other.err, HasSubstr("no parameters of a module that is hosted here, but those of Other"));
}

TEST_F(KrParam, WithSeveralModulesAParameterNeedsTheNameOfItsModule) {
    RunningProgram server = serve({"--run", "Left=" KR_MOTION_LIBRARY, "--run", "Right=" KR_MOTION_LIBRARY,
                                   "--param", "Right.threshold=0.5"});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    EXPECT_EQ(get("Left", "threshold"), "0.001\n");
    EXPECT_EQ(get("Right", "threshold"), "0.5\n");
    const auto refuse = [&](const std::string& value) {
        const Outcome outcome = krOnDomain(
            {"serve", "--run", "A=" KR_MOTION_LIBRARY, "--run", "B=" KR_MOTION_LIBRARY, "--param", value});
        EXPECT_EQ(outcome.exitCode, 2) << value;
        return outcome.err;
    };
    EXPECT_THAT(refuse("threshold=0.5"), HasSubstr("needs the name of a module, as in A.threshold=0.5"));
    EXPECT_THAT(refuse("C.threshold=0.5"), HasSubstr("no module C is hosted here; modules are A, B"));
    EXPECT_THAT(refuse("A.threshold"), HasSubstr("is not NAME=VALUE"));
}

TEST_F(KrParam, ChangesCanBeWatchedAsEvents) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    RunningProgram watch(onDomain({"event", "watch", "KRMotion/ParameterChanged", "--count", "2"}),
                         "watching");
    ASSERT_TRUE(watch.isUp()) << watch.readErr();
    EXPECT_EQ(krOnDomain({"param", "set", "KRMotion", "threshold", "0.5"}).exitCode, 0);
    EXPECT_EQ(krOnDomain({"call", "KRMotion", "setResolution", "2"}).exitCode, 0);
    EXPECT_THAT(watch.wait().out,
                AllOf(HasSubstr("KRMotion/ParameterChanged [\"threshold\",0.5]\n"),
                      HasSubstr("KRMotion/ParameterChanged [\"resolution\",\"640x480\"]\n")));
    EXPECT_EQ(krOnDomain({"call", "KRMotion", "isProcessing"}).out, "0\n")
        << "watching does not start the module";
}

TEST_F(KrParam, CompletesParametersAndTheirChoices) {
    RunningProgram server = serve({"--run", KR_MOTION_LIBRARY});
    ASSERT_TRUE(server.isUp()) << server.readErr();
    const std::string url = domain_.getUrl();
    EXPECT_EQ(kr({"complete", "--", "param", "set", "--broker", url, "KRMotion", "th"}).out, "threshold\n");
    EXPECT_EQ(kr({"complete", "--", "param", "set", "--broker", url, "KRMotion", "colorSpace", "l"}).out,
              "luma\n");
    EXPECT_EQ(kr({"complete", "--", "param", "set", "--broker", url, "KRMotion", "pause", ""}).out,
              "true\nfalse\n");
}

} // namespace
} // namespace KR::test
