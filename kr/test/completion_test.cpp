#include "program.hpp"
#include "temporaryfolder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(KrCompletion, OffersGroupsAndVerbs) {
    EXPECT_THAT(kr({"complete", "--", ""}).out,
                AllOf(HasSubstr("image\n"), HasSubstr("video\n"), HasSubstr("completion\n"),
                      Not(HasSubstr("complete\n"))));
    EXPECT_EQ(kr({"complete", "--", "im"}).out, "image\n");
    EXPECT_EQ(kr({"complete", "--", "image", "du"}).out, "dump\n");
}

TEST(KrCompletion, OffersOptions) {
    EXPECT_EQ(kr({"complete", "--", "image", "info", "--js"}).out, "--json\n");
}

TEST(KrCompletion, OffersNothingForArbitraryText) {
    EXPECT_EQ(kr({"complete", "--", "nonsense", "x"}).out, "");
    EXPECT_EQ(kr({"complete", "--", "image", "info", ""}).out, "");
}

TEST(KrCompletion, WorksInTheShell) {
    const TemporaryFolder folder;
    const std::string script = folder.path("try.sh");
    std::ofstream(script) << "source <('" KR_PROGRAM "' completion bash)\n"
                          << "COMP_WORDS=('" KR_PROGRAM "' image i) COMP_CWORD=2 COMP_LINE='" KR_PROGRAM
                             " image i'\n"
                          << "_kr\n"
                          << "printf '%s\\n' \"${COMPREPLY[@]}\" > " << folder.path("out") << "\n"
                          << "complete -p kr >> " << folder.path("out") << "\n";
    ASSERT_EQ(std::system(("bash " + script).c_str()), 0);
    const Bytes out = readAll(folder.path("out"));
    EXPECT_THAT(std::string(out.begin(), out.end()), AllOf(HasSubstr("info\n"), HasSubstr("_kr kr")));
}

TEST(KrCompletion, OffersValuesOfOptions) {
    EXPECT_EQ(kr({"complete", "--", "image", "convert", "a.png", "a.oxi", "--color-space", "bgr"}).out,
              "bgr\nbgrx\n");
    EXPECT_EQ(kr({"complete", "--", "image", "convert", "--color-space=yu"}).out, "--color-space=yuv422\n");
    EXPECT_EQ(kr({"complete", "--", "video", "convert", "--compression", "l"}).out, "lz4\n");
    EXPECT_EQ(kr({"complete", "--", "image", "info", "--log-level", "w"}).out, "warning\n");
    EXPECT_EQ(kr({"complete", "--", "image", "convert", "--quality", ""}).out, "");
}

TEST(KrCompletion, OffersValuesWhereBashSplitsTheWord) {
    const TemporaryFolder folder;
    const std::string script = folder.path("try.sh");
    std::ofstream file(script);
    file << "source <('" KR_PROGRAM "' completion bash)\n"
         << "try() { COMP_LINE=$1; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _kr; "
         << "printf '%s\\n' \"${COMPREPLY[@]}\" >> " << folder.path("out") << "; }\n";
    const auto complete = [&](const std::string& line, const std::string& words) {
        file << "try '" KR_PROGRAM " " << line << "' '" KR_PROGRAM "' " << words << "\n";
    };
    complete("image convert --color-space=yu", "image convert --color-space = yu");
    complete("image convert --color-space=", "image convert --color-space =");
    complete("video convert --log-level warning,krdds=verbose --compression l",
             "video convert --log-level warning,krdds = verbose --compression l");
    file.close();
    ASSERT_EQ(std::system(("bash " + script).c_str()), 0);
    const Bytes out = readAll(folder.path("out"));
    EXPECT_EQ(std::string(out.begin(), out.end()), "yuv422\nluma\nyuv422\nrgb\nbgr\nbgrx\nlz4\n");
}

TEST(KrCompletion, NamesTheSupportedShells) {
    EXPECT_EQ(kr({"completion", "cmd"}).exitCode, 2);
    EXPECT_THAT(kr({"completion", "fish"}).out, HasSubstr("complete -c kr"));
    EXPECT_THAT(kr({"completion", "zsh"}).out, HasSubstr("#compdef kr"));
}

} // namespace
} // namespace KR::test
