// The cost of a call to another process, compared with a bare request and reply of the same sizes over AF_UNIX and
// over TCP: all to the same process, with the other cores idle or busy.

#include <krdds/krdds.hpp>
#include <krplatform/krbroker.hpp>
#include <krplatform/krlog.hpp>
#include <krplatform/krmodulehandle.hpp>
#include <krplatform/krproxy.hpp>

#include "baresocket.hpp"
#include "circumstances.hpp"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
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

using Clock = std::chrono::steady_clock;

constexpr std::array<int, 2> kSizes{614400, 2457600}; // of images, in bytes
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
        functionName("copyHeapImage", "Still", "");
        addParam("size", "bytes");
        advertiseMethod(getCurrentMethodDescription(), this, &Still::copyHeapImage);
    }
    ~Still() override { shutDown(); }
    int addOne(int number) { return number + 1; }
    /// In memory that can be shared with other processes.
    KR::KRValue getImage(int size) { return makeImage(size, true); }
    /// In this process's own memory.
    KR::KRValue getHeapImage(int size) { return makeImage(size, false); }
    /// Copies the pixels of getHeapImage(), to the same memory each time. Returns the time that takes in nanoseconds.
    int copyHeapImage(int size) {
        const KR::KRValue image = getHeapImage(size);
        const KR::KRBinary& pixels = image[6].GetBinary();
        const std::lock_guard lock(mutex_);
        std::vector<unsigned char>& copy = copies_[size];
        copy.resize(pixels.size());
        const auto begin = Clock::now();
        std::memcpy(copy.data(), pixels.data(), pixels.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
        return static_cast<int>(std::chrono::nanoseconds(Clock::now() - begin).count());
    }

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
    std::map<int, std::vector<unsigned char>> copies_;    // guarded by mutex_, by size
};

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

    pid_t getProcess() const { return pid_; }
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

/// Median times of all kinds of calls in microseconds, as counters named subject/implementation/size. A few calls of
/// each kind in turn, many times, so that what disturbs one disturbs all.
class Comparison {
public:
    explicit Comparison(std::string circumstances) : circumstances_(std::move(circumstances)) {}

    /// A bare round trip, and calls through the socket and shared memory.
    void addLocalCalls() {
        add("remote call/unix/int to int", [this] { fetchBare(Unix, kRequestSize); });
        add("remote call/krvision/int to int", [this] { call(Local); });
        for (const int size : kSizes) {
            addImage("krvision", size, [this, size] { fetch(Local, "getImage", size); });
            addImage("krvision copied", size, [this, size] { fetch(Local, "getHeapImage", size); });
            addImage("memcpy in a call", size, [this, size] {
                const int time_ns = server_.getProxy(Local).call<int>("copyHeapImage", size);
                times_us_[nameImage("memcpy", size)].push_back(time_ns / 1000.0);
            });
        }
    }

    /// The same calls over DDS, bare ones over TCP, and images over bare sockets.
    void addOtherCalls() {
        add("remote call/tcp/int to int", [this] { fetchBare(TCP, kRequestSize); });
        add("remote call/over DDS/int to int", [this] { call(DDS); });
        for (const int size : kSizes) {
            addImage("unix", size, [this, size] { fetchBare(Unix, static_cast<std::size_t>(size)); });
            addImage("tcp", size, [this, size] { fetchBare(TCP, static_cast<std::size_t>(size)); });
            addImage("over DDS", size, [this, size] { fetch(DDS, "getImage", size); });
        }
    }

    void warmUp() const {
        for (const auto& [name, run] : kinds_) {
            run();
        }
    }

    void runEach() {
        constexpr int kAtATime = 16;
        for (const auto& [name, run] : kinds_) {
            for (int i = 0; i < kAtATime; ++i) {
                const auto begin = Clock::now();
                run();
                const std::chrono::duration<double, std::micro> time_us = Clock::now() - begin;
                times_us_[name].push_back(time_us.count());
            }
        }
    }

    void report(benchmark::State& state) {
        for (auto& [name, times] : times_us_) {
            const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
            std::nth_element(times.begin(), middle, times.end());
            state.counters[name + circumstances_] = *middle;
        }
    }

private:
    static std::string nameImage(const std::string& implementation, int size) {
        return "remote image/" + implementation + "/" + std::to_string(size) + " bytes";
    }
    void add(const std::string& name, std::function<void()> run) {
        kinds_.emplace_back(name, std::move(run));
    }
    void addImage(const std::string& implementation, int size, std::function<void()> run) {
        add(nameImage(implementation, size), std::move(run));
    }

    void call(Way way) { benchmark::DoNotOptimize(server_.getProxy(way).call<int>("addOne", 1)); }
    void fetch(Way way, const char* method, int size) {
        const KR::KRValue image = server_.getProxy(way).call<KR::KRValue>(method, size);
        benchmark::DoNotOptimize(image[6].GetBinary().data()[0]);
    }
    void fetchBare(Way way, std::size_t size) {
        reply_.resize(size);
        server_.fetchBare(way, reply_);
    }

    Server& server_ = Server::get();
    const std::string circumstances_;
    std::vector<std::pair<std::string, std::function<void()>>> kinds_;
    std::map<std::string, std::vector<double>> times_us_;
    std::vector<char> reply_ = std::vector<char>(kSizes.back()); // capacity for all
};

std::string describeLoad(std::int64_t loops) {
    return loops == 0 ? "" : ", " + std::to_string(loops) + " busy";
}

void compareCalls(benchmark::State& state, Placement placement, const std::string& place) {
    if (placement == TwoCores && std::thread::hardware_concurrency() < 2) {
        state.SkipWithError("there is one core only");
        return;
    }
    Comparison comparison(place + describeLoad(state.range(0)));
    comparison.addLocalCalls();
    const pid_t other = Server::get().getProcess();
    {
        const Placed together(other,
                              OneCore); // no pair of threads starts apart, where the kernel would leave it
        comparison.warmUp();
    }
    const Placed placed(other, placement);
    const BusyLoops busy(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        comparison.runEach();
    }
    comparison.report(state);
}

/// Apart from the others, as DDS works on for a while after a call.
void compareOtherCalls(benchmark::State& state) {
    Comparison comparison(describeLoad(state.range(0)));
    comparison.addOtherCalls();
    const BusyLoops busy(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        comparison.runEach();
    }
    comparison.report(state);
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

void withLoads(benchmark::internal::Benchmark* each) {
    each->DenseRange(0, 2)->Iterations(10);
}

BENCHMARK_CAPTURE(compareCalls, any, AnyCore, "")->Name("remote call and image")->Apply(withLoads);
BENCHMARK_CAPTURE(compareCalls, one, OneCore, ", one core")
    ->Name("remote call and image, one core")
    ->Apply(withLoads);
BENCHMARK_CAPTURE(compareCalls, two, TwoCores, ", two cores")
    ->Name("remote call and image, two cores")
    ->Apply(withLoads);
BENCHMARK(compareOtherCalls)->Name("remote call and image, other ways")->Apply(withLoads);
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
