#include "krpulse.hpp"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <utility>

namespace KR {

namespace {

constexpr std::size_t kSize = 4096;
// Number of its descriptor, or one of the next: others try these before they list all open files, which takes them long.
constexpr int kFirstDescriptor = 200;
constexpr int kLastDescriptor = 203;
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW; // so that reading it never fails

std::string getMemoryName(const std::string& id) {
    return "krvision-pulse-" + id;
}

std::string getOwnHostName() {
    utsname names{};
    return uname(&names) == 0 ? names.nodename : "";
}

/// State of a process as shown by ps(1): 'T' stopped, 'Z' zombie; 0 if it does not exist.
char getState(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    if (!std::getline(file, line)) {
        return 0;
    }
    const auto afterName = line.rfind(") ");
    return afterName == std::string::npos || afterName + 2 >= line.size() ? '?' : line[afterName + 2];
}

} // namespace

KRPulse::KRPulse(const std::string& id) noexcept {
    file_ = memfd_create(getMemoryName(id).c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING);
    const int high = fcntl(file_, F_DUPFD_CLOEXEC, kFirstDescriptor);
    if (high >= 0) { // or else there may not be so many
        close(std::exchange(file_, high));
    }
    if (file_ < 0 || ftruncate(file_, kSize) != 0) {
        return;
    }
    void* const memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file_, 0);
    if (memory == MAP_FAILED || fcntl(file_, F_ADD_SEALS, kSeals) != 0) {
        return;
    }
    counter_ = static_cast<std::atomic<std::uint64_t>*>(memory);
}

KRPulse::~KRPulse() {
    if (counter_ != nullptr) {
        munmap(counter_, kSize);
    }
    if (file_ >= 0) {
        close(file_);
    }
}

void KRPulse::beat() noexcept {
    if (counter_ != nullptr) {
        counter_->fetch_add(1, std::memory_order_relaxed);
    }
}

/// The pulse of one process.
class KRPulses::View {
public:
    /// \return null if it is not accessible
    static std::unique_ptr<View> open(const std::string& id, pid_t process) {
        const std::string folder = "/proc/" + std::to_string(process) + "/fd/";
        const std::string wanted = "/memfd:" + getMemoryName(id);
        const auto isWanted = [&](const std::string& path) {
            char target[128];
            const ssize_t size = readlink(path.c_str(), target, sizeof target);
            return size > 0 && std::string_view(target, static_cast<std::size_t>(size)).starts_with(wanted);
        };
        for (int number = kFirstDescriptor; number <= kLastDescriptor; ++number) {
            const std::string path = folder + std::to_string(number);
            if (isWanted(path)) {
                return map(path, process);
            }
        }
        const std::unique_ptr<DIR, int (*)(DIR*)> list(opendir(folder.c_str()), closedir);
        while (const dirent* const entry = list ? readdir(list.get()) : nullptr) {
            const std::string path = folder + entry->d_name;
            if (isWanted(path)) {
                return map(path, process);
            }
        }
        return nullptr;
    }
    ~View() { munmap(memory_, kSize); }
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    std::uint64_t read() const noexcept {
        return static_cast<const std::atomic<std::uint64_t>*>(memory_)->load(std::memory_order_relaxed);
    }
    bool isOver() const {
        const char state = getState(process_);
        return state == 0 || state == 'Z' || state == 'X';
    }
    bool isStopped() const {
        const char state = getState(process_);
        return state == 'T' || state == 't';
    }

private:
    View(void* memory, pid_t process) : memory_(memory), process_(process) {}

    static std::unique_ptr<View> map(const std::string& path, pid_t process) {
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0) {
            return nullptr;
        }
        struct stat status {};
        const int seals = fcntl(file, F_GET_SEALS);
        const bool isGood = seals >= 0 && (seals & kSeals) == kSeals && fstat(file, &status) == 0 &&
                            status.st_size >= static_cast<off_t>(kSize);
        void* const memory = isGood ? mmap(nullptr, kSize, PROT_READ, MAP_SHARED, file, 0) : MAP_FAILED;
        close(file);
        return memory == MAP_FAILED ? nullptr : std::unique_ptr<View>(new View(memory, process));
    }

    void* const memory_;
    const pid_t process_;
};

KRPulses::KRPulses() : host_(getOwnHostName()) {}

KRPulses::~KRPulses() = default;

void KRPulses::watch(const std::string& id, const std::string& host, pid_t process) {
    if (watched_.contains(id)) {
        return;
    }
    // Brokers of this process live and die with it.
    auto view = host == host_ && process != getpid() ? View::open(id, process) : nullptr;
    const std::uint64_t pulse = view ? view->read() : 0;
    watched_[id] = {std::move(view), pulse, 0, std::chrono::steady_clock::now()};
}

void KRPulses::keep(const std::function<bool(const std::string& id)>& isWanted) {
    std::erase_if(watched_, [&](const auto& each) { return !isWanted(each.first); });
}

std::vector<std::string> KRPulses::findSilent(int looks, std::chrono::milliseconds time) {
    constexpr int kSuspicious = 2; // polls without a pulse
    constexpr int kPatience = 10;  // factor for a process that may be waiting for a processor
    std::vector<std::string> silent;
    const auto now = std::chrono::steady_clock::now();
    for (auto& [id, watched] : watched_) {
        if (!watched.view) {
            continue;
        }
        const std::uint64_t pulse = watched.view->read();
        if (pulse != watched.last) {
            watched.last = pulse;
            watched.missed = 0;
            watched.since = now;
            continue;
        }
        ++watched.missed;
        if (watched.missed < kSuspicious) {
            continue;
        }
        const auto silence = now - watched.since;
        const bool isLate = watched.missed >= looks && silence >= time;
        if (watched.view->isOver() ||
            (isLate && (silence >= kPatience * time || watched.view->isStopped()))) {
            silent.push_back(id);
        }
    }
    return silent;
}

} // namespace KR
