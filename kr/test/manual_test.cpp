// kr manual: manual pages, and the reference of the verbs

#include "program.hpp"
#include "temporaryfolder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

namespace KR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KrManual : public testing::Test {
protected:
    KrManual() { exitCode_ = kr({"manual", "man", folder_.path("man")}).exitCode; }
    std::string read(const std::string& name) const {
        const Bytes bytes = readAll(folder_.path("man/" + name));
        return {bytes.begin(), bytes.end()};
    }

    const TemporaryFolder folder_;
    int exitCode_;
};

TEST_F(KrManual, HasAPageForEachVerbWithTheTextsOfItsHelp) {
    ASSERT_EQ(exitCode_, 0);
    EXPECT_THAT(read("kr.1"), AllOf(HasSubstr(".B kr image\n"), HasSubstr("Exit codes: 0 done")));
    const std::string page = read("kr-image-convert.1");
    const std::string help = kr({"image", "convert", "--help"}).out;
    EXPECT_THAT(page,
                AllOf(HasSubstr("kr\\-image\\-convert \\- Convert an image file to a picture, or back"),
                      HasSubstr("\\-\\-color\\-space"), HasSubstr(".SH EXAMPLES\n.nf\nkr image convert")));
    EXPECT_THAT(help, AllOf(HasSubstr("Convert an image file to a picture, or back"),
                            HasSubstr("Example:\n  kr image convert")));
    EXPECT_THAT(kr({"completion", "--help"}).out,
                HasSubstr("Example:\n  source <(kr completion bash)")); // of no group
}

TEST_F(KrManual, HasAnExampleOfEachVerb) {
    int verbs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path("man"))) {
        const std::string page = read(entry.path().filename());
        if (page.find("\n.SH VERBS\n") != std::string::npos) {
            continue; // of a group
        }
        std::string command = entry.path().stem();
        std::ranges::replace(command, '-', ' ');
        const auto example = page.find("\n.SH EXAMPLES\n");
        ASSERT_NE(example, std::string::npos) << command;
        EXPECT_THAT(page.substr(example), HasSubstr(command));
        ++verbs;
    }
    EXPECT_GT(verbs, 10);
}

TEST_F(KrManual, LeavesOutHiddenVerbs) {
    EXPECT_FALSE(std::filesystem::exists(folder_.path("man/kr-complete.1")));
    EXPECT_THAT(kr({"manual", "table"}).out,
                AllOf(HasSubstr("kr completion"), Not(HasSubstr("kr complete "))));
}

#ifdef KR_VERBS_FILE
TEST_F(KrManual, TheDocumentationListsTheVerbsOfThisProgram) {
    const Bytes bytes = readAll(KR_VERBS_FILE);
    EXPECT_THAT(std::string(bytes.begin(), bytes.end()),
                HasSubstr("\n\n" + kr({"manual", "table"}).out + "\n"))
        << "scripts/docs --update writes them";
}
#endif

TEST_F(KrManual, NoLineOfTextIsAFormatterCommand) {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path("man"))) {
        const Bytes bytes = readAll(entry.path());
        std::string line;
        for (const unsigned char byte : bytes) {
            if (byte != '\n') {
                line += static_cast<char>(byte);
                continue;
            }
            if (line.starts_with(".")) {
                EXPECT_THAT(line.substr(0, 3),
                            testing::AnyOf(".TH", ".SH", ".TP", ".B ", ".BR", ".PP", ".nf", ".fi", ".br"))
                    << entry.path() << ": " << line;
            }
            EXPECT_FALSE(line.starts_with("'")) << entry.path() << ": " << line;
            line.clear();
        }
    }
}

} // namespace
} // namespace KR::test
