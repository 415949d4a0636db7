// The cost of a call to another process, beside a bare request and reply of the same sizes over TCP: both to the same
// process on this machine, over the loopback interface.

#include <krdds/krdds.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace {

constexpr const char* kUrl = "dds:?domain=99&interfaces=lo&lease=10";
constexpr std::size_t kRequestSize = 64;

/// Serves images of any size, always with the same pixels.
class Still : public KR::KRModule {
public:
    Still(boost::shared_ptr<KR::KRBroker> broker, const std::string& name)
        : KRModule(std::move(broker), name) {
        functionName("addOne", "Still", "");
        addParam("number", "");
        advertiseMethod(getCurrentMethodDescription(), this, &Still::addOne);
        functionName("getImage", "Still", "");
        addParam("size", "bytes");
        advertiseMethod(getCurrentMethodDescription(), this, &Still::getImage);
    }
    int addOne(int number) { return number + 1; }
    KR::KRValue getImage(int size) {
        auto& pixels = images_[size];
        if (pixels.size() == 0) {
            pixels = KR::KRBinary::copyOf(std::vector<unsigned char>(size, 100).data(), size);
        }
        return KR::KRValue::array(640, 480, 2, 9, 0, 0, pixels, 0, 0.0F, 0.0F, 0.0F, 0.0F);
    }

private:
    std::map<int, KR::KRBinary> images_; // one client calls
};

void sendAll(int socket, const void* bytes, std::size_t size) {
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t sent = send(socket, next, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            throw std::runtime_error("TCP: not sent");
        }
        next += sent;
        size -= static_cast<std::size_t>(sent);
    }
}

bool receiveAll(int socket, void* bytes, std::size_t size) {
    char* next = static_cast<char*>(bytes);
    while (size > 0) {
        const ssize_t received = recv(socket, next, size, 0);
        if (received <= 0) {
            return false;
        }
        next += received;
        size -= static_cast<std::size_t>(received);
    }
    return true;
}

sockaddr_in getLoopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/// Answers each request with the number of bytes it asks for.
void serveTcp(int listening) {
    const int socket = accept(listening, nullptr, nullptr);
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::vector<char> pixels(4 << 20, 100);
    std::array<char, kRequestSize> request{};
    while (receiveAll(socket, request.data(), request.size())) {
        std::uint32_t size = 0;
        std::memcpy(&size, request.data(), sizeof size);
        sendAll(socket, pixels.data(), size);
    }
    close(socket);
}

int serve() {
    const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = getLoopback(0);
    socklen_t length = sizeof address;
    if (bind(listening, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listening, 1) != 0 ||
        getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 1;
    }
    const auto broker = KR::KRBroker::create(kUrl);
    const auto still = KR::createModule<Still>(broker, "Still");
    std::cout << ntohs(address.sin_port) << std::endl;
    std::thread tcp(serveTcp, listening);
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    tcp.join();
    return 0;
}

/// This program again, as the process to call.
class Server {
public:
    Server() {
        std::array<int, 2> input{};
        std::array<int, 2> output{};
        if (pipe2(input.data(), O_CLOEXEC) != 0 || pipe2(output.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        std::string self = "/proc/self/exe";
        std::string mode = "--serve";
        std::array<char*, 3> arguments{self.data(), mode.data(), nullptr};
        posix_spawn(&pid_, self.c_str(), &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        std::array<char, 16> line{};
        const ssize_t count = read(output[0], line.data(), line.size() - 1);
        close(output[0]);
        socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = getLoopback(static_cast<std::uint16_t>(std::atoi(line.data())));
        if (count <= 0 ||
            connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("the process to call does not start");
        }
        const int on = 1;
        setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        broker_ = KR::KRBroker::create(kUrl);
        broker_->getSession().waitForService("Still");
        proxy_ = broker_->getProxy("Still");
    }
    ~Server() {
        close(socket_);
        close(input_);
        waitpid(pid_, nullptr, 0);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    static Server& get() {
        static Server server;
        return server;
    }

    KR::KRProxy& getProxy() { return *proxy_; }

    void fetchByTcp(std::vector<char>& reply) const {
        std::array<char, kRequestSize> request{};
        const auto size = static_cast<std::uint32_t>(reply.size());
        std::memcpy(request.data(), &size, sizeof size);
        sendAll(socket_, request.data(), request.size());
        if (!receiveAll(socket_, reply.data(), reply.size())) {
            throw std::runtime_error("TCP: not received");
        }
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int socket_ = -1;
    boost::shared_ptr<KR::KRBroker> broker_;
    boost::shared_ptr<KR::KRProxy> proxy_;
};

void callRemotely(benchmark::State& state) {
    KR::KRProxy& proxy = Server::get().getProxy();
    int number = 0;
    for ([[maybe_unused]] auto _ : state) {
        number = proxy.call<int>("addOne", number & 0xffff);
    }
    state.SetLabel("int to int");
}

void callByTcp(benchmark::State& state) {
    const Server& server = Server::get();
    std::vector<char> reply(kRequestSize);
    for ([[maybe_unused]] auto _ : state) {
        server.fetchByTcp(reply);
    }
    state.SetLabel("int to int");
}

void fetchRemotely(benchmark::State& state) {
    KR::KRProxy& proxy = Server::get().getProxy();
    const int size = static_cast<int>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        const KR::KRValue image = proxy.call<KR::KRValue>("getImage", size);
        benchmark::DoNotOptimize(image[6].GetBinary().data());
    }
    state.SetLabel(std::to_string(size) + " bytes");
}

void fetchByTcp(benchmark::State& state) {
    const Server& server = Server::get();
    std::vector<char> reply(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        server.fetchByTcp(reply);
    }
    state.SetLabel(std::to_string(reply.size()) + " bytes");
}

BENCHMARK(callRemotely)->Name("remote call/krvision")->UseRealTime();
BENCHMARK(callByTcp)->Name("remote call/tcp")->UseRealTime();
BENCHMARK(fetchRemotely)->Name("remote image/krvision")->Arg(614400)->Arg(2457600)->UseRealTime();
BENCHMARK(fetchByTcp)->Name("remote image/tcp")->Arg(614400)->Arg(2457600)->UseRealTime();

} // namespace

int main(int count, char** arguments) {
    KR::registerDDS();
    KR::setLogLevel(KR::KRLogLevel::Warning);
    if (count == 2 && arguments[1] == std::string("--serve")) {
        return serve();
    }
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
