#include "krpulses.hpp"

#include "krannouncer.hpp"

#include <krlocal/krprocess.hpp>

#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace KR {

namespace {

/// Whether a name in /proc stands for the pulse of a broker.
bool isPulse(const std::string& file, const std::string& broker) {
    std::array<char, 128> target{};
    const ssize_t size = readlink(file.c_str(), target.data(), target.size());
    return size > 0 && std::string_view(target.data(), static_cast<std::size_t>(size))
                           .starts_with("/memfd:krvision-pulse-" + broker);
}

/// \return empty: there is none
std::string findPulse(const std::string& broker, pid_t process) {
    std::error_code error;
    std::filesystem::directory_iterator each("/proc/" + std::to_string(process) + "/fd", error);
    for (; !error && each != std::filesystem::directory_iterator(); each.increment(error)) {
        if (isPulse(each->path().string(), broker)) {
            return each->path().string();
        }
    }
    return {};
}

} // namespace

KRPulses::KRPulses() : host_(getHostName()) {}

void KRPulses::watch(const std::string& broker, const std::string& host, pid_t process) {
    if (watched_.contains(broker)) {
        return;
    }
    // Brokers of this process end with it.
    const bool isHere = host == host_ && process != getpid();
    watched_[broker] = {isHere ? findPulse(broker, process) : "", process, std::chrono::steady_clock::now()};
}

void KRPulses::keep(const std::function<bool(const std::string& broker)>& isWanted) {
    std::erase_if(watched_, [&](const auto& each) { return !isWanted(each.first); });
}

std::vector<std::string> KRPulses::findSilent(std::chrono::milliseconds time) {
    std::vector<std::string> silent;
    const auto now = std::chrono::steady_clock::now();
    for (auto& [broker, watched] : watched_) {
        if (watched.file.empty()) {
            continue;
        }
        if (!isStopped(watched.process)) {
            watched.running = now;
        }
        if (now - watched.running >= time || !isPulse(watched.file, broker)) {
            silent.push_back(broker);
        }
    }
    return silent;
}

} // namespace KR
