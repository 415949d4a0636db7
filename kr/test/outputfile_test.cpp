#include "tool/outputfile.hpp"

#include "temporaryfolder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace KR::tool {
namespace {

namespace fs = std::filesystem;
using test::Bytes;
using testing::HasSubstr;

/// Drops the rights of root, if the test has them, while this object exists.
class OrdinaryUser {
public:
    OrdinaryUser() {
        if (::geteuid() == 0) {
            constexpr uid_t kNobody = 65534;
            isChanged_ = ::seteuid(kNobody) == 0;
        }
    }
    ~OrdinaryUser() {
        if (isChanged_ && ::seteuid(0) != 0) {
            std::abort();
        }
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    bool isChanged_ = false;
};

TEST(KrOutputFile, DoesNotReplaceAFileThatMayNotBeWritten) {
    const test::TemporaryFolder folder;
    fs::permissions(folder.path(""), fs::perms::all); // the folder allows it
    const std::string path = folder.path("protected.oxi");
    test::writeAll(path, {1, 2, 3});
    fs::permissions(path, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    const OrdinaryUser user;
    try {
        const OutputFile out(path, "");
        FAIL() << "the file would be replaced";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("protected.oxi cannot be written: Permission denied"));
    }
}

TEST(KrOutputFile, KeepsThePermissionsOfTheReplacedFile) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path("private.oxi");
    test::writeAll(path, {1});
    constexpr fs::perms kPrivate = fs::perms::owner_read | fs::perms::owner_write;
    fs::permissions(path, kPrivate);
    OutputFile out(path, "");
    test::writeAll(out.getPath(), {2});
    out.commit();
    EXPECT_EQ(test::readAll(path), Bytes{2});
    EXPECT_EQ(fs::status(path).permissions(), kPrivate);
}

} // namespace
} // namespace KR::tool
