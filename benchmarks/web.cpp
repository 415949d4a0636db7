// The web server: processor time of one and of ten clients compared with GStreamer's, and the age of pictures. All of
// 640x480 at 30 per second with JPEG quality 80, from the same test picture. With --benchmark_out=FILE, writes
// medians there in the format of Google Benchmark, for scripts/bench. Processor times are per picture.

#include "webclient.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace KR::test;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kWarmUp{2};
constexpr std::chrono::seconds kMeasured{10};

/// A child process with its standard error in a file. Ends with the object.
class Process {
public:
    explicit Process(const std::vector<std::string>& arguments)
        : log_("/tmp/web_benchmark-" + std::to_string(::getpid())) {
        std::vector<char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        process_ = ::fork();
        if (process_ == 0) {
            const int log = ::open(log_.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
            ::dup2(log, STDERR_FILENO);
            ::dup2(log, STDOUT_FILENO);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
    }
    ~Process() {
        ::kill(process_, SIGTERM);
        ::waitpid(process_, nullptr, 0);
        ::unlink(log_.c_str());
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    std::string readLog() const {
        std::ifstream file(log_);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    /// Processor time so far, seconds.
    double getProcessorTime() const {
        std::ifstream file("/proc/" + std::to_string(process_) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::string skipped;
        for (int i = 0; i < 11; ++i) {
            fields >> skipped;
        }
        double user = 0;
        double system = 0;
        fields >> user >> system;
        return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    }

private:
    const std::string log_;
    pid_t process_ = -1;
};

int findFreePort() {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no free port");
    }
    ::close(descriptor);
    return ntohs(address.sin_port);
}

/// Reads pictures on a separate thread.
class Viewer {
public:
    explicit Viewer(int port) : client_(port), thread_([this] { run(); }) {}
    ~Viewer() {
        stopping_ = true;
        thread_.join();
    }
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;

    int countPictures() const { return pictures_; }
    /// Milliseconds from capture to receipt of each picture; valid once stopped.
    const std::vector<double>& getAges() const { return ages_; }
    void stop() { stopping_ = true; }

private:
    void run() {
        const std::uint32_t id = client_.subscribe("/camera/0/image");
        while (!stopping_) {
            const WebClient::Data data = client_.readData(id);
            const auto now = std::chrono::system_clock::now().time_since_epoch();
            ages_.push_back(std::chrono::duration<double, std::milli>(now).count() -
                            static_cast<double>(data.time_ns) / 1e6);
            ++pictures_;
        }
    }

    WebClient client_;
    std::atomic<bool> stopping_ = false;
    std::atomic<int> pictures_ = 0;
    std::vector<double> ages_;
    std::thread thread_; // last: it uses the other members
};

struct Result {
    double processor_us = 0; ///< per picture of the source
    double age_ms = 0;       ///< median
    double rate = 0;         ///< pictures per second and client
};

Result measureServer(const std::string& program, int clients) {
    const Process server({program, "serve", "--camera", "0=test:smpte", "--web", "127.0.0.1:0", "--broker",
                          "dds:?domain=230&interfaces=lo&name=web-benchmark"});
    std::smatch found;
    std::string log;
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (!std::regex_search(log, found, std::regex(":([0-9]+)/[^\n]*\n"))) {
        if (Clock::now() > end) {
            throw std::runtime_error("the server does not start: " + log);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        log = server.readLog();
    }
    std::vector<std::unique_ptr<Viewer>> viewers;
    for (int i = 0; i < clients; ++i) {
        viewers.push_back(std::make_unique<Viewer>(std::stoi(found[1])));
    }
    std::this_thread::sleep_for(kWarmUp);
    const double before = server.getProcessorTime();
    const int picturesBefore = viewers.front()->countPictures();
    std::this_thread::sleep_for(kMeasured);
    const double seconds = server.getProcessorTime() - before;
    const int pictures = viewers.front()->countPictures() - picturesBefore;
    for (const auto& viewer : viewers) {
        viewer->stop();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // each has its last picture
    std::vector<double> ages = viewers.front()->getAges();
    viewers.clear();
    std::nth_element(ages.begin(), ages.begin() + static_cast<std::ptrdiff_t>(ages.size() / 2), ages.end());
    return {seconds * 1e6 / std::max(pictures, 1), ages[ages.size() / 2],
            pictures / std::chrono::duration<double>(kMeasured).count()};
}

Result measureGStreamer() {
    const int port = findFreePort();
    const Process server({"gst-launch-1.0", "-q", "videotestsrc", "is-live=true", "pattern=smpte", "!",
                          "video/x-raw,width=640,height=480,framerate=30/1", "!", "jpegenc", "quality=80",
                          "!", "multipartmux", "!", "tcpserversink", "host=127.0.0.1",
                          "port=" + std::to_string(port)});
    std::unique_ptr<RawConnection> connection;
    const auto end = Clock::now() + std::chrono::seconds(20);
    while (!connection) {
        try {
            connection = std::make_unique<RawConnection>(port);
        } catch (const std::runtime_error&) {
            if (Clock::now() > end) {
                throw std::runtime_error("gst-launch-1.0 does not start: " + server.readLog());
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    std::atomic<bool> stopping = false;
    std::thread reader([&] {
        while (!stopping && connection->skip()) {
        }
    });
    std::this_thread::sleep_for(kWarmUp);
    const double before = server.getProcessorTime();
    std::this_thread::sleep_for(kMeasured);
    const double seconds = server.getProcessorTime() - before;
    stopping = true;
    reader.join();
    const double pictures = 30 * std::chrono::duration<double>(kMeasured).count();
    return {seconds * 1e6 / pictures, 0, 30};
}

} // namespace

int main(int argc, char** argv) try {
    std::string out;
    std::regex filter(".");
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        constexpr std::string_view kOut = "--benchmark_out=";
        constexpr std::string_view kFilter = "--benchmark_filter=";
        if (argument.starts_with(kOut)) {
            out = argument.substr(kOut.size());
        } else if (argument.starts_with(kFilter)) {
            filter = argument.substr(kFilter.size());
        } // other options are for programs that repeat short benchmarks
    }
    if (!std::regex_search("web/krvision", filter)) {
        return 0;
    }
    const Result one = measureServer(KR_PROGRAM, 1);
    const Result ten = measureServer(KR_PROGRAM, 10);
    const Result peer = measureGStreamer();
    std::fprintf(stderr,
                 "web: processor time of a picture, one client %.0f us (%.1f pictures/s), ten %.0f us (%.1f "
                 "pictures/s), "
                 "GStreamer %.0f us\n"
                 "web: one client / GStreamer %.2f, ten clients / one %.2f, age of a picture %.1f ms\n",
                 one.processor_us, one.rate, ten.processor_us, ten.rate, peer.processor_us,
                 one.processor_us / peer.processor_us, ten.processor_us / one.processor_us, one.age_ms);
    if (!out.empty()) {
        using KR::test::WebClient;
        WebClient::Json list = WebClient::Json::array();
        const auto add = [&](const char* name, const char* label, double microseconds) {
            list.push_back({{"aggregate_name", "median"},
                            {"run_name", name},
                            {"label", label},
                            {"real_time", microseconds},
                            {"time_unit", "us"}});
        };
        add("web/krvision", "1 client", one.processor_us);
        add("web/krvision", "10 clients", ten.processor_us);
        add("web/gstreamer", "1 client", peer.processor_us);
        add("web age/krvision", "1 client", one.age_ms * 1000);
        std::ofstream(out) << WebClient::Json{{"benchmarks", list}}.dump(1) << '\n';
    }
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "web_benchmark: %s\n", error.what());
    return 1;
}
