#include "krsystem.hpp"
#include "webclient.hpp"

#include <nlohmann/json.hpp>

#include <fstream>
#include <string>

namespace KR::test {
namespace {

// The port in the address that the program prints.
int findPort(const RunningProgram& program) {
    const std::string text = program.readErr();
    const std::string address = "open http://127.0.0.1:";
    const auto at = text.find(address);
    return at == std::string::npos ? -1 : std::stoi(text.substr(at + address.size()));
}

using KrWeb = KrSystem;

TEST_F(KrWeb, ShowsTheCamerasOfTheDomain) {
    RunningProgram service = serve({"--camera", "0=test:ball"});
    RunningProgram web(onDomain({"web", "--listen", "127.0.0.1:0"}), "open http");
    ASSERT_TRUE(web.isUp());
    WebClient client(findPort(web));
    EXPECT_FALSE(client.readData(client.subscribe("/camera/0/image")).payload.empty());
    EXPECT_EQ(get(findPort(web), "/camera/0.jpg").status, 200);
    EXPECT_EQ(web.stop().exitCode, 0);
    EXPECT_EQ(service.stop().exitCode, 0);
}

TEST_F(KrWeb, ShowsARestartedService) {
    auto service = std::make_unique<RunningProgram>(onDomain({"serve"}), "serving on");
    RunningProgram web(onDomain({"web", "--listen", "127.0.0.1:0"}), "open http");
    WebClient client(findPort(web));
    const std::uint32_t cameras = client.subscribe("/cameras");
    std::uint32_t images = client.subscribe("/camera/0/image");
    client.readData(images);
    service->stop();
    service.reset();
    while (client.readJson(cameras).at("service") != false) {
    }
    ASSERT_TRUE(client.waitForNoChannel("/camera/0/image"));
    service = std::make_unique<RunningProgram>(onDomain({"serve"}), "serving on");
    images = client.subscribe("/camera/0/image");
    EXPECT_FALSE(client.readData(images).payload.empty());
}

TEST_F(KrWeb, IsPartOfServe) {
    RunningProgram service = serve({"--web", "127.0.0.1:0", "--web-read-only"});
    WebClient client(findPort(service));
    EXPECT_EQ(client.getServerInfo().at("metadata").at("readOnly"), "true");
    EXPECT_FALSE(client.readData(client.subscribe("/camera/0/image")).payload.empty());
    EXPECT_EQ(service.stop().exitCode, 0);
}

TEST_F(KrWeb, RefusesToServeEverybody) {
    const Outcome open = krOnDomain({"web", "--listen", "0.0.0.0:0"});
    EXPECT_EQ(open.exitCode, 2);
    EXPECT_NE(open.err.find("give a token"), std::string::npos) << open.err;
    const Outcome missing = krOnDomain({"web", "--token", "/nowhere/token"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("/nowhere/token: cannot be read"), std::string::npos) << missing.err;
}

} // namespace
} // namespace KR::test
