#include "otherprocess.hpp"
#include "stranger.hpp"
#include "testdomain.hpp"

#include <patience.hpp>
#include <testmodule.hpp>

#include <krplatform/krproxy.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace KR::test {

namespace {

using testing::AllOf;
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

    /// The error of a broker with these credentials.
    std::string refusalOf(const std::string& credentials) const {
        try {
            KRBroker::create(getUrl(credentials));
        } catch (const KRError& error) {
            return error.getDescription();
        }
        return "no error";
    }
    /// Runs commands of the shell in the folder where all this lies.
    void run(const std::string& commands) const {
        const std::string log = (folder_ / "log").string();
        const std::string all = "set -e; cd " + folder_.string() + "; " + commands;
        if (std::system(("(" + all + ") >" + log + " 2>&1").c_str()) != 0) {
            std::ostringstream said;
            said << std::ifstream(log).rdbuf();
            throw std::runtime_error("failed: " + all + "\n" + said.str());
        }
    }
    /// A copy of the robot's credentials, to spoil, called "robot-2", "robot-3" and so on.
    std::string copyRobot() {
        const std::string copy = "robot-" + std::to_string(++copies_ + 1);
        fs::copy(folder_ / "ours/robot", folder_ / copy);
        return copy;
    }
    /// Puts an edited, but well signed permissions.p7s into the folder. \param edit  a command of sed
    void editPermissions(const std::string& credentials, const std::string& edit) const {
        run("sed '" + edit +
            "' ours/robot/permissions.xml >edited.xml; ! cmp edited.xml ours/robot/permissions.xml; "
            "openssl smime -sign -in edited.xml -text -out " +
            credentials +
            "/permissions.p7s "
            "-signer ours/ca/permissions-ca.pem -inkey ours/ca/permissions-ca.key");
    }

    TestDomain domain;

private:
    void make(const std::string& authority, const std::string& names) const {
        run(std::string(KR_MAKE_TEST_CA) + " " + authority + " " + names);
    }

    fs::path folder_;
    int copies_ = 0;
};

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

TEST_F(KRDDSSecurity, AValidIdentityCannotCallInAnotherBrokersName) {
    const std::vector<std::uint8_t> nothing{0x90}; // an empty array
    const auto broker = KRBroker::create(getUrl("ours/robot"));
    std::atomic<int> runs = 0;
    const auto module =
        makeModule(broker, "Module", [&](TestModule& made) { made.add("run", [&] { return ++runs; }); });
    const OtherProcess laptop(getUrl("ours/laptop"), {"module", "Laptop"});
    ASSERT_TRUE(broker->getSession().waitForService("Laptop", kPatience));
    Stranger thief(domain.getNumber()); // with the robot's credentials, which this process uses on the domain
    const std::string robot = thief.findBrokerOf(getpid());
    const dds_entity_t replies = thief.readReplies();
    thief.announce(1, nothing);
    thief.request(robot, 1, "Module", "run", nothing);
    ASSERT_TRUE(eventually([&] { return runs == 1; })); // it may call
    thief.pretendToBe(thief.findBrokerOf(laptop.getPid()));
    thief.request(robot, 2, "Module", "run", nothing);
    EXPECT_TRUE(eventually([&] { return broker->getDiagnostics().refusedMessages == 1; }));
    thief.announce(1, nothing);
    thief.withdraw(); // in the name of the laptop, whose modules stay
    EXPECT_TRUE(eventually([&] { return broker->getDiagnostics().refusedMessages == 3; }));
    EXPECT_EQ(broker->getProxy("Laptop")->call<int>("getPid"), laptop.getPid());
    EXPECT_EQ(runs, 1);
    EXPECT_GT(replies, 0);
}

TEST_F(KRDDSSecurity, CallsTakeNoSocketUnlessThatIsWanted) {
    for (const auto& [options, way] :
         {std::pair<std::string, std::string>("", "DDS: security is on here"),
          std::pair<std::string, std::string>("&local=on", "socket and shared memory of this machine")}) {
        const OtherProcess server(getUrl("ours/robot") + options, {"module", "Robot"});
        ASSERT_EQ(server.getAnswer(), "ready");
        const auto broker = KRBroker::create(getUrl("ours/laptop") + options);
        ASSERT_TRUE(broker->getSession().waitForService("Robot", kPatience));
        EXPECT_EQ(broker->getProxy("Robot")->call<int>("getPid"), server.getPid());
        const auto peers = broker->getDiagnostics().peers;
        ASSERT_FALSE(peers.empty());
        EXPECT_EQ(peers.back().way, way);
    }
}

TEST_F(KRDDSSecurity, AFileThatIsMissingOrIsSomethingElseIsNamed) {
    EXPECT_EQ(refusalOf("ours/robot"), "no error");
    for (const char* file : {"identity-ca.pem", "identity.pem", "key.pem", "permissions-ca.pem",
                             "governance.p7s", "permissions.p7s"}) {
        const std::string copy = copyRobot();
        std::ofstream(*this / copy / file) << "something else\n";
        EXPECT_THAT(refusalOf(copy), HasSubstr(copy + "/" + file + " is not a "));
        std::ofstream(*this / copy / file, std::ios::trunc).flush();
        EXPECT_THAT(refusalOf(copy), HasSubstr(copy + "/" + file + " is not a "));
        fs::remove(*this / copy / file);
        EXPECT_THAT(refusalOf(copy), HasSubstr(copy + "/" + file + " is missing"));
    }
}

TEST_F(KRDDSSecurity, AKeyThatDoesNotFitItsCertificateIsRefused) {
    const std::string copy = copyRobot();
    run("cp ours/laptop/key.pem " + copy);
    EXPECT_THAT(refusalOf(copy),
                HasSubstr(copy + "/key.pem is not the key of the certificate in identity.pem"));
}

TEST_F(KRDDSSecurity, AKeyThatNeedsAPasswordIsRefused) {
    const std::string copy = copyRobot();
    run("openssl ec -in ours/robot/key.pem -aes128 -passout pass:secret -out " + copy + "/key.pem");
    EXPECT_THAT(refusalOf(copy),
                HasSubstr(copy + "/key.pem is not a private key in PEM format without a password"));
}

TEST_F(KRDDSSecurity, AnIdentityOfAnotherAuthorityIsRefused) {
    const std::string mine = copyRobot();
    run("cp foreign/intruder/identity.pem foreign/intruder/key.pem " + mine);
    EXPECT_THAT(refusalOf(mine), HasSubstr(mine + "/identity.pem is not valid beside identity-ca.pem"));
    const std::string authority = copyRobot();
    run("cp foreign/intruder/identity-ca.pem " + authority);
    EXPECT_THAT(refusalOf(authority),
                HasSubstr(authority + "/identity.pem is not valid beside identity-ca.pem"));
}

TEST_F(KRDDSSecurity, AnIdentityThatIsNotOfTodayIsRefused) {
    // An authority that keeps books, as it is the one that lets dates be chosen.
    run(": >index; printf '[ca]\ndefault_ca=ca\n[ca]\ndatabase=index\nnew_certs_dir=.\nrand_serial=yes\n"
        "default_md=sha256\npolicy=any\n[any]\norganizationName=optional\ncommonName=supplied\n' >config; "
        "openssl req -new -key ours/robot/key.pem -subj '/O=KRVision test/CN=robot' -out request");
    const auto certify = [&](const std::string& begin, const std::string& end) {
        const std::string copy = copyRobot();
        run(": >index; openssl ca -batch -config config -cert ours/ca/identity-ca.pem -keyfile "
            "ours/ca/identity-ca.key -startdate " +
            begin + " -enddate " + end + " -in request -notext -out " + copy + "/identity.pem");
        return copy;
    };
    EXPECT_EQ(refusalOf(certify("20010101000000Z", "20990101000000Z")), "no error");
    const std::string expired = certify("20010101000000Z", "20020101000000Z");
    EXPECT_THAT(refusalOf(expired), HasSubstr(expired + "/identity.pem is not valid"));
    EXPECT_THAT(refusalOf(expired), HasSubstr("certificate has expired"));
    const std::string future = certify("20980101000000Z", "20990101000000Z");
    EXPECT_THAT(refusalOf(future), HasSubstr(future + "/identity.pem is not valid"));
    EXPECT_THAT(refusalOf(future), HasSubstr("certificate is not yet valid"));

    const std::string authority = copyRobot();
    run(": >index; openssl req -new -key ours/ca/identity-ca.key -subj '/O=KRVision test/CN=old' -out "
        "old.request; "
        "openssl ca -batch -config config -selfsign -keyfile ours/ca/identity-ca.key -startdate "
        "20010101000000Z "
        "-enddate 20020101000000Z -in old.request -notext -out " +
        authority +
        "/identity-ca.pem; "
        "openssl x509 -req -in request -CA " +
        authority +
        "/identity-ca.pem -CAkey ours/ca/identity-ca.key "
        "-CAcreateserial -out " +
        authority + "/identity.pem");
    EXPECT_THAT(refusalOf(authority),
                HasSubstr(authority + "/identity-ca.pem is not valid: certificate has expired"));
}

TEST_F(KRDDSSecurity, RulesThatTheirAuthorityHasNotSignedAreRefused) {
    for (const std::string rules : {"governance.p7s", "permissions.p7s"}) {
        const auto spoil = [&](const std::string& commands) {
            const std::string copy = copyRobot();
            run("file=" + copy + "/" + rules + "; " + commands);
            EXPECT_THAT(refusalOf(copy),
                        HasSubstr(copy + "/" + rules + " is not signed by permissions-ca.pem"))
                << commands;
        };
        spoil("cp foreign/intruder/" + rules + " $file");
        spoil("sed -i 's/<max>230/<max>229/' $file");
        // By somebody who has an identity, but is no authority.
        spoil("openssl smime -verify -noverify -in $file -out rules.xml; openssl smime -sign -in rules.xml "
              "-text -out "
              "$file -signer ours/laptop/identity.pem -inkey ours/laptop/key.pem");
    }
    const std::string authority = copyRobot();
    run("cp foreign/intruder/permissions-ca.pem " + authority);
    EXPECT_THAT(refusalOf(authority),
                HasSubstr(authority + "/governance.p7s is not signed by permissions-ca.pem"));
}

TEST_F(KRDDSSecurity, PermissionsThatAreNotForThisBrokerAndThisDayAreRefused) {
    const std::string other = copyRobot();
    run("cp ours/laptop/permissions.p7s " + other);
    EXPECT_THAT(refusalOf(other), AllOf(HasSubstr(other), HasSubstr("Subject name is invalid")));
    const std::string expired = copyRobot();
    editPermissions(expired, "s/<not_before>[0-9]*/<not_before>2001/; s/<not_after>[0-9]*/<not_after>2002/");
    EXPECT_THAT(refusalOf(expired),
                AllOf(HasSubstr(expired), HasSubstr("Permissions validity period expired")));
    const std::string future = copyRobot();
    editPermissions(future, "s/<not_before>[0-9]*/<not_before>2098/; s/<not_after>[0-9]*/<not_after>2099/");
    EXPECT_THAT(refusalOf(future),
                AllOf(HasSubstr(future), HasSubstr("Permissions validity period has not started yet")));
    const std::string silent = copyRobot();
    editPermissions(silent, "/<publish>/s/KRVision\\/\\*/KRVision\\/Broker/");
    EXPECT_THAT(refusalOf(silent), HasSubstr("must be allowed to publish requests and replies"));
    const std::string elsewhere = copyRobot();
    editPermissions(elsewhere, "s/<max>230/<max>0/");
    EXPECT_THAT(refusalOf(elsewhere), AllOf(HasSubstr(elsewhere), HasSubstr("denied")));
}

} // namespace

} // namespace KR::test
