// Three simulated hosts: network namespaces joined by virtual cables.

#include "otherprocess.hpp"
#include "testdomain.hpp"

#include <eventmodules.hpp>
#include <patience.hpp>

#include <krplatform/krmemoryproxy.hpp>
#include <krplatform/krmodulehandle.hpp>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace KR::test {

namespace {

bool run(const std::string& command) {
    return std::system((command + " 2>/dev/null").c_str()) == 0;
}

/// Hosts 1, 2 and so on at 10.77.0.1, 10.77.0.2, each with one interface "kr0" on the same network.
class Hosts {
public:
    explicit Hosts(int count) : count_(count) {
        bool done = true;
        for (int i = 0; i <= count && done; ++i) { // number 0 is the switch
            done = run("ip netns add " + getName(i));
        }
        done = done && run("ip -n " + getName(0) + " link add bridge type bridge") &&
               run("ip -n " + getName(0) + " link set bridge up");
        for (int i = 1; i <= count && done; ++i) {
            const std::string port = "port" + std::to_string(i);
            done = run("ip -n " + getName(0) + " link add " + port + " type veth peer name kr0 netns " +
                       getName(i)) &&
                   run("ip -n " + getName(0) + " link set " + port + " master bridge up") &&
                   run("ip -n " + getName(i) + " addr add 10.77.0." + std::to_string(i) + "/24 dev kr0") &&
                   run("ip -n " + getName(i) + " link set kr0 up") &&
                   run("ip -n " + getName(i) + " link set lo up");
        }
        complete_ = done;
    }
    ~Hosts() {
        for (int i = 0; i <= count_; ++i) {
            run("ip netns del " + getName(i));
        }
    }
    Hosts(const Hosts&) = delete;
    Hosts& operator=(const Hosts&) = delete;

    bool areComplete() const noexcept { return complete_; }
    /// Prefix of a command that is to run on the host.
    std::vector<std::string> on(int host) const { return {"ip", "netns", "exec", getName(host)}; }
    /// Leaves the host its loopback interface alone.
    bool isolate(int host) const { return run("ip -n " + getName(host) + " link del kr0"); }
    void setCable(int host, bool plugged) const {
        run("ip -n " + getName(0) + " link set port" + std::to_string(host) + (plugged ? " up" : " down"));
    }
    /// From now on nothing that one host sends to the other arrives, except what it sends to all.
    bool misdirect(int from, int to) const {
        return run("ip -n " + getName(from) + " neigh replace 10.77.0." + std::to_string(to) +
                   " lladdr 02:00:00:00:00:99 dev kr0 nud permanent");
    }
    /// Moves the calling thread, and those that it starts from now on, to the host.
    void enter(int host) const {
        const int handle = open(("/run/netns/" + getName(host)).c_str(), O_RDONLY | O_CLOEXEC);
        if (handle < 0 || setns(handle, CLONE_NEWNET) != 0) {
            throw std::runtime_error("no entry to " + getName(host));
        }
        close(handle);
    }

private:
    static std::string getName(int host) {
        return "krdds" + std::to_string(getpid()) + "-" + std::to_string(host);
    }

    const int count_;
    bool complete_ = false;
};

TEST(KRDDSNetwork, ThreeHostsRecoverFromACableThatWasUnpluggedForFiveSeconds) {
    const Hosts hosts(3);
    if (!hosts.areComplete()) {
        GTEST_SKIP() << "this needs the right to make network namespaces, as root has it, and the tool ip";
    }
    const TestDomain domain;
    const std::string url = "dds:?domain=" + std::to_string(domain.getNumber()) +
                            "&interfaces=kr0&peers=10.77.0.1,10.77.0.2,10.77.0.3&fragment=1344&lease=2";
    const OtherProcess robot(url + "&memory=here", {"camera", "KRVideoDevice"}, hosts.on(1));
    ASSERT_EQ(robot.getAnswer(), "ready");
    const OtherProcess processor(url, {"counter", "Counter"}, hosts.on(2));
    ASSERT_EQ(processor.getAnswer(), "ready");
    std::thread([&] {
        hosts.enter(3);
        const auto broker = KRBroker::create(url);
        ASSERT_TRUE(broker->getSession().waitForService("Counter", kPatience));
        ASSERT_TRUE(broker->getSession().waitForService("KRMemory", kPatience));
        const auto listener = createModule<EventListener>(broker, "Listener");
        KRMemoryProxy(broker).subscribeToEvent("Images", "Listener", "onEvent");
        ASSERT_GE(listener->waitForEvents(10).size(), 10U);
        hosts.setCable(2, false);
        EXPECT_TRUE(eventually([&] { return broker->getModuleList().size() == 3; })); // without Counter
        std::this_thread::sleep_for(std::chrono::seconds(5));
        hosts.setCable(2, true);
        ASSERT_TRUE(broker->getSession().waitForService("Counter", kPatience));
        const std::size_t before = listener->waitForEvents(0).size();
        EXPECT_GE(listener->waitForEvents(before + 10).size(), before + 10);
    }).join();
}

/// Packets that were sent over the loopback interface in the network namespace of the calling thread.
long countLoopbackPackets() {
    std::ifstream table("/proc/thread-self/net/dev");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        if (name == "lo:") {
            long ignored = 0, packets = 0; // received and sent are the same
            fields >> ignored >> packets;
            return packets;
        }
    }
    return -1;
}

TEST(KRDDSNetwork, ProcessesOfOneHostMeetWithoutBeingDiscovered) {
    const Hosts hosts(1);
    if (!hosts.areComplete()) {
        GTEST_SKIP() << "this needs the right to make network namespaces, as root has it, and the tool ip";
    }
    ASSERT_TRUE(hosts.isolate(1));
    const TestDomain domain;
    constexpr int kProcesses = 10;
    std::thread([&] {
        hosts.enter(1);
        const long before = countLoopbackPackets();
        std::vector<std::unique_ptr<OtherProcess>> processes;
        for (int i = 0; i < kProcesses; ++i) {
            processes.push_back(std::make_unique<OtherProcess>(
                domain.getUrl("local=on"), std::vector<std::string>{"module", "Member" + std::to_string(i)}));
            ASSERT_EQ(processes.back()->getAnswer(), "ready");
        }
        // Each sends a few announcements to whom it may concern; discovery takes some seventy packets for each pair.
        EXPECT_LT(countLoopbackPackets() - before, 20 * kProcesses);
        const auto broker = domain.createBroker("local=off");
        ASSERT_EQ(broker->getModuleList().size(), static_cast<std::size_t>(kProcesses));
        for (int i = 0; i < kProcesses; ++i) {
            const auto member = broker->getProxy("Member" + std::to_string(i));
            for (int k = 0; k < kProcesses; ++k) {
                EXPECT_TRUE(member->call<bool>("isReachable", "Member" + std::to_string(k)));
            }
        }
    }).join();
}

/// Binds a socket to a name in the abstract namespace.
int bindTo(const std::string& name, int type) {
    const int file = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(file, reinterpret_cast<const sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())),
              0);
    return file;
}

TEST(KRDDSNetwork, AProcessIsSilentWhileItMeetsOthersOfItsHost) {
    const Hosts hosts(1);
    if (!hosts.areComplete()) {
        GTEST_SKIP() << "this needs the right to make network namespaces, as root has it, and the tool ip";
    }
    ASSERT_TRUE(hosts.isolate(1));
    const TestDomain domain;
    std::thread([&] {
        hosts.enter(1);
        // A broker that does not answer.
        const std::string name =
            "krvision-host-dds" + std::to_string(domain.getNumber()) + "-" + std::to_string(geteuid()) + "-0";
        const int waking = bindTo(name + "-wake", SOCK_DGRAM);
        const int listening = bindTo(name, SOCK_SEQPACKET);
        ASSERT_EQ(listen(listening, 10), 0);
        const long before = countLoopbackPackets();
        const OtherProcess process(domain.getUrl("local=on"), {"module", "Member"});
        EXPECT_EQ(process.getAnswer(), "ready");
        EXPECT_LT(countLoopbackPackets() - before, 10); // it waits for a second
        close(listening);
        close(waking);
    }).join();
}

/// Packets that the sockets at a port have dropped, in the network namespace of the calling thread.
long countDropped(int port) {
    std::ifstream table("/proc/thread-self/net/udp");
    long count = 0;
    for (std::string line; std::getline(table, line);) {
        const auto colon = line.find(':', line.find(':') + 1); // "   4: 0100007F:1CEA ... 0"
        if (colon != std::string::npos && std::stoi(line.substr(colon + 1, 4), nullptr, 16) == port) {
            count += std::stol(line.substr(line.find_last_of(' ', line.find_last_not_of(' '))));
        }
    }
    return count;
}

/// Sends the head of a discovery packet of this broker to all on the loopback interface.
void sendAsBroker(const std::string& id, int port) {
    std::string packet("RTPS\2\1\1\20", 8);
    for (std::size_t i = 0; i < 24; i += 2) {
        packet += static_cast<char>(std::stoi(id.substr(i, 2), nullptr, 16));
    }
    const int file = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const in_addr loopback{htonl(INADDR_LOOPBACK)};
    EXPECT_EQ(setsockopt(file, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback), 0);
    sockaddr_in all{};
    all.sin_family = AF_INET;
    all.sin_port = htons(static_cast<std::uint16_t>(port));
    all.sin_addr.s_addr = inet_addr("239.255.0.1");
    EXPECT_EQ(
        sendto(file, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&all), sizeof all),
        static_cast<ssize_t>(packet.size()));
    close(file);
}

TEST(KRDDSNetwork, TheKernelDropsWhatBrokersThatHaveMetSendForDiscovery) {
    const Hosts hosts(1);
    if (!hosts.areComplete()) {
        GTEST_SKIP() << "this needs the right to make network namespaces, as root has it, and the tool ip";
    }
    ASSERT_TRUE(hosts.isolate(1));
    const TestDomain domain;
    std::thread([&] {
        hosts.enter(1);
        const OtherProcess first(domain.getUrl("local=on"), {"module", "First"});
        ASSERT_EQ(first.getAnswer(), "ready");
        const OtherProcess second(domain.getUrl("local=on"), {"module", "Second"});
        ASSERT_EQ(second.getAnswer(), "ready");
        const auto broker = domain.createBroker("local=off");
        ASSERT_TRUE(broker->getSession().waitForService("Second", kPatience));
        const auto id = broker->getProxy("Second")->call<std::string>("callOther", "First", "callerOf", 0);
        const int port = 7400 + 250 * static_cast<int>(domain.getNumber());
        EXPECT_TRUE(eventually([&] {
            const long before = countDropped(port);
            sendAsBroker(id, port);
            return countDropped(port) > before;
        }));
        const long before = countDropped(port);
        sendAsBroker("0110" + std::string(20, '7'), port); // one that has not met
        EXPECT_EQ(countDropped(port), before);
    }).join();
}

TEST(KRDDSNetwork, APeerThatAcknowledgesNothingHoldsUpNobodyElse) {
    const Hosts hosts(3);
    if (!hosts.areComplete()) {
        GTEST_SKIP() << "this needs the right to make network namespaces, as root has it, and the tool ip";
    }
    const TestDomain domain;
    const std::string url = "dds:?domain=" + std::to_string(domain.getNumber()) +
                            "&interfaces=kr0&peers=10.77.0.1,10.77.0.2,10.77.0.3&lease=2";
    OtherProcess service(url, {"module", "Server"}, hosts.on(1));
    ASSERT_EQ(service.getAnswer(), "ready");
    const OtherProcess caller(url, {"module", "Caller"}, hosts.on(2));
    ASSERT_EQ(caller.getAnswer(), "ready");
    std::thread([&] {
        hosts.enter(3);
        const auto broker = KRBroker::create(url);
        ASSERT_TRUE(broker->getSession().waitForService("Server", kPatience));
        ASSERT_TRUE(broker->getSession().waitForService("Caller", kPatience));
        const auto server = broker->getProxy("Server");
        const auto proxy = broker->getProxy("Caller");
        ASSERT_TRUE(eventually([&] { return proxy->call<bool>("isReachable", "Server"); }));
        proxy->call("callOther", "Server", "makeImage", 1);
        ASSERT_TRUE(hosts.misdirect(1, 2));
        // More than is kept for a reader that is behind, so that most answers wait for it.
        constexpr int kCalls = 8;
        for (int i = 0; i < kCalls; ++i) {
            proxy->post("callOther", "Server", "makeImage", 3 << 20);
        }
        ASSERT_TRUE(eventually([&] { return server->call<int>("countImages") == 1 + kCalls; }));
        // The service discovers others, calls them, and notices when they go.
        OtherProcess late(url, {"module", "Late"}, hosts.on(3));
        ASSERT_EQ(late.getAnswer(), "ready");
        EXPECT_TRUE(eventually([&] { return server->call<bool>("isReachable", "Late"); }));
        EXPECT_EQ(server->call<int>("callOther", "Late", "pidOf", ""), late.getPid());
        late.kill();
        EXPECT_TRUE(eventually([&] { return !server->call<bool>("isReachable", "Late"); }));
    }).join();
    EXPECT_EQ(service.stop(), 0); // it ends by itself
}

} // namespace

} // namespace KR::test
