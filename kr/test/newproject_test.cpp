// The projects that kr new writes, built outside the tree against an installed KRVision.

#include "temporaryfolder.hpp"

#include <string>

namespace {

/// KRVision installed in a folder, and projects beside it.
class Installation {
public:
    static const Installation& get() {
        static const Installation installation;
        return installation;
    }
    std::string path(const std::string& name) const { return folder_.path(name); }

private:
    Installation();

    const KR::test::TemporaryFolder folder_;
};

} // namespace

#define KR_PROGRAM Installation::get().path("prefix/bin/kr")

#include "krsystem.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace KR::test;
using testing::HasSubstr;

/// \return exit code and all output of the command
Outcome run(std::vector<std::string> command) {
    const detail::File out = detail::makeTemporaryFile();
    const pid_t process = start(std::move(command), ::fileno(out.get()), ::fileno(out.get()));
    int status = 0;
    ::waitpid(process, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, detail::readFromStart(out.get()), ""};
}

Installation::Installation() {
    const Outcome installed = run({KR_CMAKE, "--install", KR_BUILD, "--prefix", path("prefix")});
    if (installed.exitCode != 0) {
        throw std::runtime_error(installed.out);
    }
    std::filesystem::current_path(path(""));
}

class KrNewProject : public KrSystem {
protected:
    /// Writes the project, builds it and runs its tests, like somebody who reads its README.
    void make(const std::string& name, const std::vector<std::string>& options = {}) const {
        std::vector<std::string> arguments{"new", name};
        arguments.insert(arguments.end(), options.begin(), options.end());
        ASSERT_EQ(kr(arguments).exitCode, 0);
        const Outcome tested =
            run({path(name + "/.ci/test"), "-DCMAKE_PREFIX_PATH=" + path("prefix"),
                 "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS=-Werror", "-DCMAKE_CXX_COMPILER=" KR_CXX});
        ASSERT_EQ(tested.exitCode, 0) << tested.out;
        ASSERT_THAT(tested.out, HasSubstr("100% tests passed"));
    }
    /// The same in Python, with the system's interpreter; names have "_" for "-".
    void makeInPython(const std::string& name, const std::string& kind) const {
        ASSERT_EQ(kr({"new", name, "--python", kind}).exitCode, 0);
        ::setenv("PATH", (path("prefix/bin:/usr/bin:") + std::getenv("PATH")).c_str(), 1);
        ::setenv("PYTHONPATH", path(std::string("prefix/") + KR_PYTHON_PLACE).c_str(), 1);
        const Outcome tested = run({path(name + "/.ci/test")});
        ASSERT_EQ(tested.exitCode, 0) << tested.out;
        ASSERT_THAT(tested.out, HasSubstr(" passed"));
    }
    /// An extractor RedBall works in kr run with kr serve.
    void expectToRun(const std::string& module) const {
        const RunningProgram serving = serve({"--camera", "0=test:smpte"});
        RunningProgram running(onDomain({"run", path(module), "--subscribe", "RedBall"}),
                               "module RedBall runs");
        ASSERT_TRUE(running.isUp()) << running.readErr();
        EXPECT_THAT(
            krOnDomain({"memory", "watch", "RedBall/Brightness", "--count", "2", "--seconds", "30"}).out,
            testing::ContainsRegex("RedBall/Brightness +1[0-9][0-9]")); // follows the initial empty list
        EXPECT_EQ(running.stop().exitCode, 0) << running.readErr();
    }
    static std::string path(const std::string& name) { return Installation::get().path(name); }
};

TEST_F(KrNewProject, AnExtractorBuildsPassesItsTestsAndRuns) {
    ASSERT_NO_FATAL_FAILURE(make("red-ball"));
    expectToRun("red-ball/build/red-ball.so");
}

TEST_F(KrNewProject, AModuleBuildsPassesItsTestAndRuns) {
    ASSERT_NO_FATAL_FAILURE(make("counter", {"--module"}));
    RunningProgram running(onDomain({"run", path("counter/build/counter.so")}), "module Counter runs");
    ASSERT_TRUE(running.isUp()) << running.readErr();
    EXPECT_EQ(krOnDomain({"call", "Counter", "count", "3"}).out, "3\n");
    EXPECT_EQ(running.stop().exitCode, 0);
}

#ifdef KR_WITH_PYTHON
TEST_F(KrNewProject, AnExtractorInPythonPassesItsTestsAndRuns) {
    ASSERT_NO_FATAL_FAILURE(makeInPython("red-ball", "--extractor"));
    expectToRun("red-ball/red_ball.py");
}

TEST_F(KrNewProject, AModuleInPythonPassesItsTestAndRuns) {
    ASSERT_NO_FATAL_FAILURE(makeInPython("counter", "--module"));
    RunningProgram running(onDomain({"run", path("counter/counter.py")}), "module Counter runs");
    ASSERT_TRUE(running.isUp()) << running.readErr();
    EXPECT_EQ(krOnDomain({"call", "Counter", "count", "3"}).out, "3\n");
    EXPECT_EQ(running.stop().exitCode, 0);
}
#endif

} // namespace
