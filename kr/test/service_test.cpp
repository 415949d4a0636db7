// kr serve as a service: what it reports to the service manager

#include "krsystem.hpp"
#include "temporaryfolder.hpp"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace KR::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

/// The socket of a service manager.
class Manager {
public:
    /// \param address  path, or @ and an abstract name
    explicit Manager(const std::string& address) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        std::memcpy(name.sun_path, address.data(), address.size());
        if (name.sun_path[0] == '@') {
            name.sun_path[0] = '\0';
        }
        EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&name),
                         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size())),
                  0);
        ::setenv("NOTIFY_SOCKET", address.c_str(), 1);
    }
    ~Manager() {
        ::close(socket_);
        for (const char* each : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
            ::unsetenv(each);
        }
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    /// The next message; "" if there is none in time.
    std::string receive(std::chrono::milliseconds patience = kPatience) {
        pollfd ready{socket_, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(patience.count())) != 1) {
            return {};
        }
        std::string message(4096, '\0');
        message.resize(static_cast<std::size_t>(::recv(socket_, message.data(), message.size(), 0)));
        return message;
    }
    /// The next message that begins like this; earlier ones are appended to `before`.
    std::string receive(const std::string& beginning, std::string& before) {
        for (;;) {
            std::string message = receive();
            if (message.empty() || message.starts_with(beginning)) {
                return message;
            }
            before += message;
        }
    }

private:
    const int socket_;
};

class KrService : public KrSystem {
protected:
    RunningProgram serveFile(const std::string& text) const {
        std::ofstream(folder_.path("robot.yaml")) << text;
        return RunningProgram(onDomain({"serve", folder_.path("robot.yaml")}), "");
    }
    const TemporaryFolder folder_;
};

TEST_F(KrService, IsReadyOnceAllModulesCanBeCalled) {
    Manager manager(folder_.path("socket"));
    RunningProgram server =
        serveFile("modules:\n  - {library: " KR_CRASHING_MODULE ", name: Beside, process: own}\n"
                  "  - " KR_FAILING_MODULE "\n");
    std::string before;
    EXPECT_EQ(manager.receive("READY=1", before), "READY=1\n") << server.readErr();
    EXPECT_THAT(before, HasSubstr("STATUS=0 of 2 modules work\n"));
    const std::string modules = krOnDomain({"module", "list"}).out;
    EXPECT_THAT(modules, testing::AllOf(HasSubstr("Beside\n"), HasSubstr("Failing\n")));
    krOnDomain({"call", "Failing", "leave"});
    EXPECT_EQ(manager.receive("STATUS=1 of", before), "STATUS=1 of 2 modules work\n");
    EXPECT_EQ(manager.receive("STATUS=2 of", before), "STATUS=2 of 2 modules work\n");
    ::kill(server.getPid(), SIGHUP);
    EXPECT_THAT(manager.receive("RELOADING=1", before), StartsWith("RELOADING=1\nMONOTONIC_USEC="));
    EXPECT_EQ(manager.receive("READY=1", before), "READY=1\n");
    ::kill(server.getPid(), SIGTERM);
    EXPECT_EQ(manager.receive("STOPPING=1", before), "STOPPING=1\n");
    EXPECT_EQ(server.wait().exitCode, 0);
}

TEST_F(KrService, IsNotReadyWhileAModuleCannotBeCreated) {
    Manager manager("@krvision-test-" + std::to_string(::getpid()));
    RunningProgram server = serveFile("modules: [" KR_THROWING_MODULE "]\n");
    EXPECT_TRUE(server.waitFor("restarting in 0.5 s")) << server.readErr();
    ::kill(server.getPid(), SIGTERM);
    std::string before;
    EXPECT_EQ(manager.receive("STOPPING=1", before), "STOPPING=1\n");
    EXPECT_EQ(before, "STATUS=0 of 1 modules work\n");
}

TEST_F(KrService, FeedsTheWatchdogWhileItWorks) {
    Manager manager(folder_.path("socket"));
    ::setenv("WATCHDOG_USEC", "300000", 1);
    RunningProgram server = serveFile("cameras: [test]\n");
    std::string before;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(manager.receive("WATCHDOG=1", before), "WATCHDOG=1\n") << server.readErr();
    }
    ::kill(server.getPid(), SIGSTOP);
    while (!manager.receive(std::chrono::milliseconds(500)).empty()) {
    }
    ::kill(server.getPid(), SIGCONT);
    EXPECT_EQ(manager.receive("WATCHDOG=1", before), "WATCHDOG=1\n");
    EXPECT_EQ(server.stop().exitCode, 0);
}

TEST_F(KrService, TheWatchdogOfAnotherProcessIsNotFed) {
    Manager manager(folder_.path("socket"));
    ::setenv("WATCHDOG_USEC", "30000", 1);
    ::setenv("WATCHDOG_PID", "1", 1);
    RunningProgram server = serveFile("cameras: [test]\n");
    EXPECT_TRUE(server.waitFor("serving on"));
    std::string before;
    ::kill(server.getPid(), SIGTERM);
    EXPECT_EQ(manager.receive("STOPPING=1", before), "STOPPING=1\n");
    EXPECT_THAT(before, testing::Not(HasSubstr("WATCHDOG")));
}

} // namespace
} // namespace KR::test
