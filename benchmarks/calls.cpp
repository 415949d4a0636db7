// The cost of a call to another process, compared with a bare request and reply of the same sizes over AF_UNIX and
// over TCP: all to the same process, with the other cores idle or busy.

#include <krdds/krdds.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

constexpr std::size_t kRequestSize = 64;
const std::string kUrl = "dds:?domain=99&interfaces=lo&lease=10";

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
        functionName("getHeapImage", "Still", "");
        addParam("size", "bytes");
        advertiseMethod(getCurrentMethodDescription(), this, &Still::getHeapImage);
    }
    ~Still() override { shutDown(); }
    int addOne(int number) { return number + 1; }
    /// In memory that can be shared with other processes.
    KR::KRValue getImage(int size) { return makeImage(size, true); }
    /// In this process's own memory.
    KR::KRValue getHeapImage(int size) { return makeImage(size, false); }

private:
    KR::KRValue makeImage(int size, bool shared) {
        const std::lock_guard lock(mutex_);
        KR::KRBinary& pixels = images_[{size, shared}];
        if (pixels.size() == 0) {
            const auto count = static_cast<std::size_t>(size);
            const auto bytes = shared ? KR::KRBinary::allocate(count)
                                      : boost::shared_ptr<unsigned char[]>(new unsigned char[count]);
            std::fill_n(bytes.get(), count, static_cast<unsigned char>(100));
            pixels = KR::KRBinary(bytes, count);
        }
        return KR::KRValue::array(640, 480, 2, 9, 0, 0, pixels, 0, 0.0F, 0.0F, 0.0F, 0.0F);
    }

    std::mutex mutex_;
    std::map<std::pair<int, bool>, KR::KRBinary> images_; // guarded by mutex_
};

void sendAll(int socket, const void* bytes, std::size_t size) {
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t sent = send(socket, next, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            throw std::runtime_error("a bare request or reply cannot be sent");
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

void setNoDelay(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // fails on sockets without it
}

/// Answers each request of one client with the number of bytes it asks for.
void serveBare(int listening) {
    const int socket = accept(listening, nullptr, nullptr);
    setNoDelay(socket);
    const std::vector<char> pixels(4 << 20, 100);
    std::array<char, kRequestSize> request{};
    while (receiveAll(socket, request.data(), request.size())) {
        std::uint32_t size = 0;
        std::memcpy(&size, request.data(), sizeof size);
        sendAll(socket, pixels.data(), size);
    }
    close(socket);
}

sockaddr_in getLoopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

sockaddr_un getAbstract(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path + 1);
    return address;
}

template <class Address>
int listenAt(Address& address) {
    const int listening =
        socket(reinterpret_cast<const sockaddr&>(address).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t length = sizeof address;
    if (bind(listening, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listening, 1) != 0 ||
        getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot listen on a socket");
    }
    return listening;
}

template <class Address>
int connectTo(const Address& address) {
    const int connected =
        socket(reinterpret_cast<const sockaddr&>(address).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(connected, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("the process to call does not start");
    }
    setNoDelay(connected);
    return connected;
}

int serve() {
    const std::string name = "krvision-benchmark-" + std::to_string(getpid());
    sockaddr_in tcp = getLoopback(0);
    sockaddr_un local = getAbstract(name);
    std::thread byTcp(serveBare, listenAt(tcp));
    std::thread byUnix(serveBare, listenAt(local));
    {
        const auto broker = KR::KRBroker::create(kUrl);
        const auto still = KR::createModule<Still>(broker, "Still");
        std::cout << ntohs(tcp.sin_port) << " " << name << std::endl;
        std::string line;
        while (std::getline(std::cin, line)) {
        }
    }
    byTcp.join();
    byUnix.join();
    return 0;
}

enum Way { Local, DDS, Unix, TCP };

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
        std::array<char, 128> line{};
        const ssize_t count = read(output[0], line.data(), line.size() - 1);
        close(output[0]);
        std::uint16_t port = 0;
        std::string name;
        if (count <= 0 || !(std::istringstream(line.data()) >> port >> name)) {
            throw std::runtime_error("the process to call does not start");
        }
        sockets_[TCP] = connectTo(getLoopback(port));
        sockets_[Unix] = connectTo(getAbstract(name));
        connectBroker(Local, kUrl);
        connectBroker(DDS, kUrl + "&local=off");
    }
    ~Server() {
        proxies_.clear();
        brokers_.clear();
        for (const auto& [way, socket] : sockets_) {
            close(socket);
        }
        close(input_);
        waitpid(pid_, nullptr, 0);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    static Server& get() {
        static Server server;
        return server;
    }

    KR::KRProxy& getProxy(Way way) { return *proxies_.at(way); }

    void fetchBare(Way way, std::vector<char>& reply) const {
        std::array<char, kRequestSize> request{};
        const auto size = static_cast<std::uint32_t>(reply.size());
        std::memcpy(request.data(), &size, sizeof size);
        sendAll(sockets_.at(way), request.data(), request.size());
        if (!receiveAll(sockets_.at(way), reply.data(), reply.size())) {
            throw std::runtime_error("no bare reply received");
        }
    }

private:
    void connectBroker(Way way, const std::string& url) {
        const auto broker = KR::KRBroker::create(url);
        broker->getSession().waitForService("Still");
        const bool local = broker->getDiagnostics().peers.at(0).local;
        if (local != (way == Local)) {
            throw std::runtime_error("the process to call is reached by another way than expected");
        }
        proxies_[way] = broker->getProxy("Still");
        brokers_.push_back(broker);
    }

    pid_t pid_ = -1;
    int input_ = -1;
    std::map<Way, int> sockets_;
    std::vector<boost::shared_ptr<KR::KRBroker>> brokers_;
    std::map<Way, boost::shared_ptr<KR::KRProxy>> proxies_;
};

/// Processes that loop at full speed while this object exists.
class BusyLoops {
public:
    explicit BusyLoops(std::int64_t count) {
        for (std::int64_t i = 0; i < count; ++i) {
            const pid_t pid = fork();
            if (pid == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                for (volatile bool forever = true; forever;) {
                }
                _exit(0);
            }
            pids_.push_back(pid);
        }
    }
    ~BusyLoops() {
        for (const pid_t pid : pids_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    BusyLoops(const BusyLoops&) = delete;
    BusyLoops& operator=(const BusyLoops&) = delete;

private:
    std::vector<pid_t> pids_;
};

std::string describe(const std::string& size, std::int64_t busy) {
    return size + (busy == 0 ? "" : ", " + std::to_string(busy) + " busy");
}

void call(benchmark::State& state, Way way) {
    KR::KRProxy& proxy = Server::get().getProxy(way);
    const BusyLoops busy(state.range(0));
    int number = 0;
    for ([[maybe_unused]] auto _ : state) {
        number = proxy.call<int>("addOne", number & 0xffff);
    }
    state.SetLabel(describe("int to int", state.range(0)));
}

void callBare(benchmark::State& state, Way way) {
    const Server& server = Server::get();
    const BusyLoops busy(state.range(0));
    std::vector<char> reply(kRequestSize);
    for ([[maybe_unused]] auto _ : state) {
        server.fetchBare(way, reply);
    }
    state.SetLabel(describe("int to int", state.range(0)));
}

void fetch(benchmark::State& state, Way way, const char* method) {
    KR::KRProxy& proxy = Server::get().getProxy(way);
    const BusyLoops busy(state.range(1));
    const int size = static_cast<int>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        const KR::KRValue image = proxy.call<KR::KRValue>(method, size);
        benchmark::DoNotOptimize(image[6].GetBinary().data()[0]);
    }
    state.SetLabel(describe(std::to_string(size) + " bytes", state.range(1)));
}

void fetchBare(benchmark::State& state, Way way) {
    const Server& server = Server::get();
    const BusyLoops busy(state.range(1));
    std::vector<char> reply(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        server.fetchBare(way, reply);
    }
    state.SetLabel(describe(std::to_string(state.range(0)) + " bytes", state.range(1)));
}

void copy(benchmark::State& state) {
    const BusyLoops busy(state.range(1));
    const std::vector<char> from(static_cast<std::size_t>(state.range(0)), 1);
    std::vector<char> to(from.size());
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(describe(std::to_string(state.range(0)) + " bytes", state.range(1)));
}

/// Time of one call while several threads call at once: the reciprocal of the throughput.
void callFromThreads(benchmark::State& state) {
    KR::KRProxy& proxy = Server::get().getProxy(Local);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(proxy.call<int>("addOne", 1));
    }
    if (state.thread_index() == 0) {
        state.SetLabel(std::to_string(state.threads()) + " threads");
    }
}

void atEverySize(benchmark::internal::Benchmark* each) {
    each->ArgsProduct({{614400, 2457600}, {0, 1, 2}})->UseRealTime();
}

BENCHMARK_CAPTURE(call, local, Local)->Name("remote call/krvision")->DenseRange(0, 2)->UseRealTime();
BENCHMARK_CAPTURE(call, dds, DDS)->Name("remote call/over DDS")->DenseRange(0, 2)->UseRealTime();
BENCHMARK_CAPTURE(callBare, unix, Unix)->Name("remote call/unix")->DenseRange(0, 2)->UseRealTime();
BENCHMARK_CAPTURE(callBare, tcp, TCP)->Name("remote call/tcp")->DenseRange(0, 2)->UseRealTime();
BENCHMARK_CAPTURE(fetch, local, Local, "getImage")->Name("remote image/krvision")->Apply(atEverySize);
BENCHMARK_CAPTURE(fetch, copied, Local, "getHeapImage")
    ->Name("remote image/krvision copied")
    ->Apply(atEverySize);
BENCHMARK_CAPTURE(fetch, dds, DDS, "getImage")->Name("remote image/over DDS")->Apply(atEverySize);
BENCHMARK_CAPTURE(fetchBare, unix, Unix)->Name("remote image/unix")->Apply(atEverySize);
BENCHMARK_CAPTURE(fetchBare, tcp, TCP)->Name("remote image/tcp")->Apply(atEverySize);
BENCHMARK(copy)->Name("remote image/memcpy")->Apply(atEverySize);
BENCHMARK(callFromThreads)->Name("remote calls/krvision")->ThreadRange(1, 32)->UseRealTime();

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
