#include "tool/command.hpp"

#include "program.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace KR::test;
using testing::HasSubstr;

TEST(KrCommand, HelpGoesToStandardOutputWithCode0) {
    const Outcome run = kr({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_THAT(run.out, HasSubstr("image"));
    EXPECT_THAT(run.out, HasSubstr("3 done but data was lost"));
}

TEST(KrCommand, PrintsItsVersion) {
    const Outcome run = kr({"--version"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_THAT(run.out, testing::MatchesRegex("kr [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(KrCommand, AnUnknownLogLevelIsRefused) {
    const Outcome run = kr({"completion", "bash", "--log-level", "loud"});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_THAT(run.err, HasSubstr("--log-level: \"loud\" is not a level of the log"));
}

TEST(KrCommand, WrongUsageIsReportedOnStandardErrorWithCode2) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"image"},
                                               {"painting"},
                                               {"image", "paint"},
                                               {"image", "info"},
                                               {"image", "info", "--wrong", "a"}}) {
        const Outcome run = kr(arguments);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_THAT(run.err, HasSubstr("kr: "));
    }
}

TEST(KrCommand, UnknownVerbsAndOptionsAreNamed) {
    const auto errorOf = [](const std::vector<std::string>& arguments) { return kr(arguments).err; };
    EXPECT_THAT(errorOf({"painting"}), HasSubstr("kr: kr has no verb \"painting\"\n"));
    EXPECT_THAT(errorOf({"--wrong"}), HasSubstr("kr: kr has no option \"--wrong\"\n"));
    EXPECT_THAT(errorOf({"image", "paint", "a"}), HasSubstr("kr: kr image has no verb \"paint\"\n"));
    EXPECT_THAT(errorOf({"image", "info", "--wrong"}),
                HasSubstr("kr: kr image info has no option \"--wrong\"\n"));
    EXPECT_THAT(errorOf({"image", "info", "a", "--wrong", "3"}),
                HasSubstr("kr: kr image info has no option \"--wrong\"\n"));
    EXPECT_THAT(errorOf({"image", "dump", "a", "b"}), HasSubstr("not expected: b\n"));
    EXPECT_THAT(errorOf({"image", "dump"}), HasSubstr("kr: FILE is required\n"));
}

TEST(KrCommand, AMissingVerbIsReportedWithTheAvailableOnes) {
    EXPECT_THAT(kr({}).err, testing::ContainsRegex("kr: kr needs a verb: .*, image, .*, video"));
    EXPECT_THAT(kr({"image"}).err, HasSubstr("kr: kr image needs a verb: convert, dump, info\n"));
}

TEST(KrCommand, MalformedNumbersAreRefused) {
    const auto refuse = [](std::vector<std::string> arguments, const std::string& number) {
        arguments.push_back(number);
        const Outcome run = kr(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments.front() << " " << number;
        EXPECT_THAT(run.err,
                    testing::AllOf(HasSubstr(": expected a "), HasSubstr(", not \"" + number + "\"\n")));
    };
    for (const std::string number : {"", " ", "-1", "x", "1x", "0x1", "1.5", "99999999999999999999"}) {
        refuse({"video", "extract", "a.oxv", "b.png", "--frame"}, number);
    }
    refuse({"video", "convert", "a.oxv", "b.png", "--to"}, "1x");
    refuse({"image", "convert", "a.oxi", "b.jpg", "--quality"}, "1x");
    refuse({"camera", "info"}, "1x");
    for (const std::string number : {"", "x", "-1", "0", "nan", "inf", "1e300", "1,5"}) {
        refuse({"camera", "record", "0", "a.oxv", "--seconds"}, number);
    }
}

TEST(KrCommand, ANumberMayHaveLeadingZeros) {
    EXPECT_THAT(kr({"camera", "info", "010", "--camera", "0=test"}).err, HasSubstr("there is no camera 10;"));
}

TEST(KrCommand, OutputThatCannotBeWrittenIsAFailure) {
    const std::string command = std::string(KR_PROGRAM) + " --help >/dev/full 2>/dev/null";
    const int status = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

} // namespace
