#include "tool/command.hpp"

#include "program.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace KR::test;
using testing::HasSubstr;

// The names in the list of subcommands of a --help.
std::vector<std::string> listSubcommands(const std::vector<std::string>& arguments) {
    std::istringstream help(kr(arguments).out);
    std::vector<std::string> names;
    bool isList = false;
    for (std::string line; std::getline(help, line);) {
        if (line == "Subcommands:") {
            isList = true;
        } else if (isList && line.size() > 2 && line.substr(0, 2) == "  " && line[2] != ' ') {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        } else if (isList && line.empty()) {
            break;
        }
    }
    return names;
}

TEST(KrCommand, HelpIsDataAndDone) {
    const Outcome run = kr({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_THAT(run.out, HasSubstr("image"));
    EXPECT_THAT(run.out, HasSubstr("3 done but data was lost"));
}

TEST(KrCommand, SaysItsVersion) {
    const Outcome run = kr({"--version"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_THAT(run.out, testing::MatchesRegex("kr [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(KrCommand, ALogLevelThatIsNoneIsRefused) {
    const Outcome run = kr({"completion", "bash", "--log-level", "loud"});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_THAT(run.err, HasSubstr("--log-level: \"loud\" is not a level of the log"));
}

TEST(KrCommand, EveryVerbHasAnExampleInItsHelp) {
    const auto expectExample = [](const Outcome& run, const std::string& command) {
        EXPECT_EQ(run.exitCode, 0);
        const auto example = run.out.find("Example:\n  ");
        ASSERT_NE(example, std::string::npos) << command;
        EXPECT_THAT(run.out.substr(example), HasSubstr(command));
    };
    const std::vector<std::string> groups = listSubcommands({"--help"});
    ASSERT_FALSE(groups.empty());
    for (const std::string& group : groups) {
        const std::vector<std::string> verbs = listSubcommands({group, "--help"});
        for (const std::string& verb : verbs) {
            expectExample(kr({group, verb, "--help"}), "kr " + group + " " + verb);
        }
        if (verbs.empty()) { // a verb without a group
            expectExample(kr({group, "--help"}), "kr " + group);
        }
    }
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

TEST(KrCommand, WhatItDoesNotKnowIsNamed) {
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

TEST(KrCommand, AMissingVerbIsReportedWithTheVerbsThereAre) {
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
        refuse({"video", "convert", "a.oxv", "b.png", "--to"}, number);
        refuse({"image", "convert", "a.oxi", "b.jpg", "--quality"}, number);
        refuse({"camera", "info"}, number);
    }
    for (const std::string number : {"", "x", "-1", "0", "nan", "inf", "1e300", "1,5"}) {
        refuse({"camera", "record", "0", "a.oxv", "--seconds"}, number);
    }
}

TEST(KrCommand, ANumberMayHaveZerosInFront) {
    EXPECT_THAT(kr({"camera", "info", "010", "--camera", "0=test"}).err, HasSubstr("there is no camera 10;"));
}

TEST(KrCommand, OutputThatCannotBeWrittenIsAFailure) {
    const std::string command = std::string(KR_PROGRAM) + " --help >/dev/full 2>/dev/null";
    const int status = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

} // namespace
