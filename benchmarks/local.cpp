// What a call to another process of this machine costs, beside a bare request and reply of 64 bytes over AF_UNIX: both to
// the same process, with the other cores idle or busy.

#include <krlocal/krlocalendpoint.hpp>
#include <krplatform/krerror.hpp>
#include <krplatform/krlog.hpp>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <list>
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
enum Code : std::uint32_t { AddOne, GetImage, GetCopiedImage };

/// Hands out images of any size, the same pixels again and again.
class Still : public KR::KRLocalService {
public:
    ~Still() override {
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    void post(std::function<void()> job) override {
        const std::lock_guard lock(mutex_);
        threads_.emplace_back(std::move(job));
    }
    void serve(std::shared_ptr<KR::KRLocalRequest> request) noexcept override {
        KR::KRLocalMessage reply;
        std::uint32_t number = 0;
        std::memcpy(&number, request->message.body.data(),
                    std::min(sizeof number, request->message.body.size()));
        if (request->message.code == AddOne) {
            ++number;
            reply.body.assign(reinterpret_cast<const char*>(&number), sizeof number);
        } else {
            reply.binaries.push_back(getImage(number, request->message.code == GetImage));
        }
        request->reply(reply);
    }
    void noticeCallerGone(const std::string&) noexcept override {}

private:
    KR::KRBinary getImage(std::size_t size, bool shared) {
        const std::lock_guard lock(mutex_);
        KR::KRBinary& image = images_[{size, shared}];
        if (image.size() == 0) {
            const auto bytes = shared ? KR::KRBinary::allocate(size)
                                      : boost::shared_ptr<unsigned char[]>(new unsigned char[size]);
            std::memset(bytes.get(), 100, size);
            image = KR::KRBinary(bytes, size);
        }
        return image;
    }

    std::mutex mutex_;
    std::list<std::thread> threads_;
    std::map<std::pair<std::size_t, bool>, KR::KRBinary> images_;
};

sockaddr_un toAddress(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path + 1); // abstract
    return address;
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

/// Answers each request with as many bytes as it asks for.
void serveUnix(int listening) {
    const int socket = accept(listening, nullptr, nullptr);
    const std::vector<char> pixels(4 << 20, 100);
    std::array<char, kRequestSize> request{};
    while (receiveAll(socket, request.data(), request.size())) {
        std::uint32_t size = 0;
        std::memcpy(&size, request.data(), sizeof size);
        for (std::size_t sent = 0; sent < size;) {
            const ssize_t count = send(socket, pixels.data() + sent, size - sent, MSG_NOSIGNAL);
            if (count <= 0) {
                break;
            }
            sent += static_cast<std::size_t>(count);
        }
    }
    close(socket);
}

int serve() {
    const std::string name = "krvision-benchmark-" + std::to_string(getpid());
    const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un bare = toAddress(name);
    if (bind(listening, reinterpret_cast<const sockaddr*>(&bare), sizeof bare) != 0 ||
        listen(listening, 1) != 0) {
        return 1;
    }
    Still still;
    KR::KRLocalEndpoint endpoint(KR::KRLocalOptions{"server", ""}, still);
    const KR::KRLocalAddress& address = endpoint.getAddress();
    std::cout << name << " " << address.machine << " " << address.socket << " " << address.secret
              << std::endl;
    std::thread thread(serveUnix, listening);
    for (std::string line; std::getline(std::cin, line);) {
    }
    thread.join();
    endpoint.stop();
    return 0;
}

/// This program once more, as the process to call.
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
        std::array<char, 512> line{};
        const ssize_t count = read(output[0], line.data(), line.size() - 1);
        close(output[0]);
        std::string bare;
        KR::KRLocalAddress address;
        std::istringstream(std::string(line.data())) >> bare >> address.machine >> address.socket >>
            address.secret;
        socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un where = toAddress(bare);
        if (count <= 0 || connect(socket_, reinterpret_cast<const sockaddr*>(&where), sizeof where) != 0) {
            throw std::runtime_error("the process to call does not start");
        }
        connection_ = endpoint_.connect(address, std::chrono::seconds(5), {});
    }
    ~Server() {
        endpoint_.stop();
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

    KR::KRLocalMessage call(Code code, std::uint32_t number) const {
        KR::KRLocalMessage request;
        request.code = code;
        request.body.assign(reinterpret_cast<const char*>(&number), sizeof number);
        return connection_->call(request);
    }

    void fetchBare(std::vector<char>& reply) const {
        std::array<char, kRequestSize> request{};
        const auto size = static_cast<std::uint32_t>(reply.size());
        std::memcpy(request.data(), &size, sizeof size);
        if (send(socket_, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
            !receiveAll(socket_, reply.data(), reply.size())) {
            throw std::runtime_error("AF_UNIX: not received");
        }
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int socket_ = -1;
    Still own_;
    KR::KRLocalEndpoint endpoint_{KR::KRLocalOptions{"client", ""}, own_};
    std::shared_ptr<KR::KRLocalConnection> connection_;
};

/// Processes that do nothing, as fast as they can, while this stands.
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

void callLocally(benchmark::State& state) {
    const Server& server = Server::get();
    const BusyLoops busy(state.range(0));
    std::uint32_t number = 0;
    for ([[maybe_unused]] auto _ : state) {
        const KR::KRLocalMessage reply = server.call(AddOne, number);
        std::memcpy(&number, reply.body.data(), sizeof number);
    }
    state.SetLabel(describe("int to int", state.range(0)));
}

void callBare(benchmark::State& state) {
    const Server& server = Server::get();
    const BusyLoops busy(state.range(0));
    std::vector<char> reply(kRequestSize);
    for ([[maybe_unused]] auto _ : state) {
        server.fetchBare(reply);
    }
    state.SetLabel(describe("int to int", state.range(0)));
}

void fetchLocally(benchmark::State& state, Code code) {
    const Server& server = Server::get();
    const BusyLoops busy(state.range(1));
    for ([[maybe_unused]] auto _ : state) {
        const KR::KRLocalMessage reply = server.call(code, static_cast<std::uint32_t>(state.range(0)));
        benchmark::DoNotOptimize(reply.binaries[0].data()[0]);
    }
    state.SetLabel(describe(std::to_string(state.range(0)) + " bytes", state.range(1)));
}

void fetchBare(benchmark::State& state) {
    const Server& server = Server::get();
    const BusyLoops busy(state.range(1));
    std::vector<char> reply(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        server.fetchBare(reply);
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

/// Time of one call while so many threads call at once; it is the reciprocal of the throughput.
void callFromThreads(benchmark::State& state) {
    const Server& server = Server::get();
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(server.call(AddOne, 1));
    }
    if (state.thread_index() == 0) {
        state.SetLabel(std::to_string(state.threads()) + " threads");
    }
}

void atEverySize(benchmark::internal::Benchmark* each) {
    each->ArgsProduct({{614400, 2457600}, {0, 1, 2}})->UseRealTime();
}

BENCHMARK(callLocally)->Name("local call/krvision")->DenseRange(0, 2)->UseRealTime();
BENCHMARK(callBare)->Name("local call/unix")->DenseRange(0, 2)->UseRealTime();
BENCHMARK_CAPTURE(fetchLocally, allocated, GetImage)->Name("local image/krvision")->Apply(atEverySize);
BENCHMARK_CAPTURE(fetchLocally, copied, GetCopiedImage)
    ->Name("local image/krvision copied")
    ->Apply(atEverySize);
BENCHMARK(fetchBare)->Name("local image/unix")->Apply(atEverySize);
BENCHMARK(copy)->Name("local image/memcpy")->Apply(atEverySize);
BENCHMARK(callFromThreads)->Name("local calls/krvision")->ThreadRange(1, 32)->UseRealTime();

} // namespace

int main(int count, char** arguments) {
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
