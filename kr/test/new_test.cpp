// kr new: what it refuses and what it writes. newproject_test.cpp builds and runs the result.

#include "program.hpp"
#include "temporaryfolder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace KR::test {
namespace {

using testing::HasSubstr;
using testing::Not;

class KrNew : public testing::Test {
protected:
    KrNew() { std::filesystem::current_path(folder_.path("")); }
    ~KrNew() override { std::filesystem::current_path(before_); }

    std::string read(const std::string& path) const {
        const Bytes bytes = readAll(folder_.path(path));
        return {bytes.begin(), bytes.end()};
    }

    const std::filesystem::path before_ = std::filesystem::current_path();
    const TemporaryFolder folder_;
};

TEST_F(KrNew, FillsInTheNamesEverywhere) {
    ASSERT_EQ(kr({"new", "red-ball_Extractor", "--extractor"}).exitCode, 0);
    const std::string project = "red-ball_Extractor/";
    EXPECT_THAT(read(project + "red-ball_Extractor.cpp"), HasSubstr("class RedBallExtractor : public"));
    EXPECT_THAT(read(project + "test/red-ball_Extractor_test.cpp"), HasSubstr("\"RedBall\""));
    EXPECT_THAT(read(project + "CMakeLists.txt"), HasSubstr("project(red-ball_Extractor "));
    EXPECT_THAT(read(project + "README.md"), HasSubstr("kr memory watch RedBall/"));
    EXPECT_FALSE(read(project + ".clang-format").empty());
    int files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.path(project))) {
        if (entry.is_regular_file()) {
            ++files;
            const Bytes bytes = readAll(entry.path());
            EXPECT_THAT(std::string(bytes.begin(), bytes.end()), Not(testing::ContainsRegex("@[A-Za-z]+@")))
                << entry.path();
        }
    }
    EXPECT_EQ(files, 7);
    const auto rights = std::filesystem::status(folder_.path(project + ".ci/test")).permissions();
    EXPECT_NE(rights & std::filesystem::perms::owner_exec, std::filesystem::perms::none);
}

TEST_F(KrNew, DoesNotTouchAnExistingFolder) {
    std::filesystem::create_directory(folder_.path("ball"));
    const Outcome outcome = kr({"new", "ball"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err, "kr: ball exists already\n");
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path("ball")));
}

TEST_F(KrNew, LeavesNothingIfItCannotWrite) {
    if (::geteuid() == 0) {
        // The only place where not even root may write.
        std::filesystem::current_path("/proc");
    } else {
        std::filesystem::permissions(folder_.path(""), std::filesystem::perms::owner_read);
    }
    EXPECT_EQ(kr({"new", "ball"}).exitCode, 1);
    std::filesystem::current_path(before_);
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path("")));
}

TEST_F(KrNew, RefusesNamesThatFilesOrClassesCannotHave) {
    for (const std::string name : {"", "3x", "a/b", "..", "-x", "a b", "b\xC3\xA4ll", "a\nb"}) {
        EXPECT_EQ(kr({"new", "--", name}).exitCode, 2) << name;
    }
    EXPECT_THAT(kr({"new", "KR"}).err, HasSubstr("the library's namespace"));
    EXPECT_THAT(kr({"new", "class", "--python"}).err, HasSubstr("Python has something of that name"));
    EXPECT_EQ(kr({"new", "ball", "--module", "--extractor"}).exitCode, 2);
    EXPECT_TRUE(std::filesystem::is_empty(folder_.path("")));
}

} // namespace
} // namespace KR::test
