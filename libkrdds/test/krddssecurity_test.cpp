#include "otherprocess.hpp"
#include "testdomain.hpp"

#include <patience.hpp>

#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace KR::test {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

/// Two authorities: "ours" has made a robot and a laptop, "foreign" an intruder.
class KRDDSSecurity : public testing::Test {
protected:
    KRDDSSecurity() {
        std::string name = (fs::temp_directory_path() / "krdds-security-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        folder_ = name;
        make("ours", "robot laptop");
        make("foreign", "intruder");
    }
    ~KRDDSSecurity() override {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }

    std::string getUrl(const std::string& credentials) const {
        return domain.getUrl("lease=30&security=" + (folder_ / credentials).string());
    }
    fs::path operator/(const std::string& path) const { return folder_ / path; }

    TestDomain domain;

private:
    void make(const std::string& authority, const std::string& names) const {
        const std::string command = std::string(KR_MAKE_TEST_CA) + " " + (folder_ / authority).string() +
                                    " " + names + " >" + (folder_ / "log").string() + " 2>&1";
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("failed: " + command);
        }
    }

    fs::path folder_;
};

std::string refusalOf(const std::string& url) {
    try {
        KRBroker::create(url);
    } catch (const KRError& error) {
        return error.getDescription();
    }
    return "no error";
}

TEST_F(KRDDSSecurity, ProcessesOfOneAuthorityReachEachOtherAndNobodyElse) {
    const OtherProcess server(getUrl("ours/robot"), {"module", "Robot"});
    const OtherProcess open(domain.getUrl(), {"module", "Open"});
    const OtherProcess foreign(getUrl("foreign/intruder"), {"module", "Intruder"});
    ASSERT_EQ(server.getAnswer(), "ready");
    ASSERT_EQ(open.getAnswer(), "ready");
    ASSERT_EQ(foreign.getAnswer(), "ready");
    const auto seesOnly = [](const std::string& url, const std::string& module, int pid) {
        const auto broker = KRBroker::create(url);
        ASSERT_TRUE(broker->getSession().waitForService(module, kPatience));
        EXPECT_EQ(broker->getProxy(module)->call<int>("getPid"), pid);
        EXPECT_THAT(broker->getModuleList(), ElementsAre(module));
    };
    seesOnly(getUrl("ours/laptop"), "Robot", server.getPid());
    seesOnly(domain.getUrl(), "Open", open.getPid());
    seesOnly(getUrl("foreign/intruder"), "Intruder", foreign.getPid());
}

TEST_F(KRDDSSecurity, ThatCannotBeHadAsAskedForIsRefused) {
    std::ofstream(*this / "ours/laptop/key.pem") << "no key";
    EXPECT_THAT(refusalOf(getUrl("ours/laptop")), HasSubstr("the DDS engine refuses the participant"));

    fs::copy_file(*this / "foreign/intruder/governance.p7s", *this / "ours/robot/governance.p7s",
                  fs::copy_options::overwrite_existing);
    EXPECT_THAT(refusalOf(getUrl("ours/robot")), HasSubstr("verify error"));

    fs::copy_file(*this / "ours/robot/identity-ca.pem", *this / "foreign/intruder/identity-ca.pem",
                  fs::copy_options::overwrite_existing);
    EXPECT_THAT(refusalOf(getUrl("foreign/intruder")), HasSubstr("Certificate not valid"));

    fs::remove(*this / "ours/robot/permissions.p7s");
    EXPECT_THAT(refusalOf(getUrl("ours/robot")), HasSubstr("robot/permissions.p7s"));
}

} // namespace

} // namespace KR::test
