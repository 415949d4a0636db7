#include "tool/outputfile.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace KR::tool {

namespace {

namespace fs = std::filesystem;

// The file that a signal handler removes before the program ends.
std::atomic<const char*> partialFile = nullptr;
static_assert(std::atomic<const char*>::is_always_lock_free, "read by a signal handler");

// Precedes the extension in the name of a partial file.
std::string getMark() {
    return ".partial-" + std::to_string(::getpid());
}

void removePartialFile(int signal) {
    if (const char* path = partialFile.load()) {
        ::unlink(path);
    }
    ::raise(signal); // SA_RESETHAND: now with its default effect
}

void handleSignals() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action.sa_handler = removePartialFile;
            action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
            ::sigaction(signal, &action, nullptr);
        }
    }
}

} // namespace

OutputFile::OutputFile(const std::string& path, const std::string& input) : target_(path), partial_(path) {
    std::error_code error;
    if (!input.empty() && fs::equivalent(path, input, error)) {
        throw std::runtime_error(path + " is the input file; choose another name for the result");
    }
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status)) {
        throw std::runtime_error(path + " is a folder");
    }
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        return;
    }
    // Renaming asks for the right to write to the folder only.
    if (fs::exists(status) && ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) {
        throw std::runtime_error(path + " cannot be written: " + std::strerror(errno));
    }
    const fs::path target = fs::weakly_canonical(path, error);
    if (!error) {
        target_ = target.string();
    }
    const fs::path folder = fs::path(target_).parent_path();
    if (!folder.empty() && !fs::is_directory(folder, error)) {
        throw std::runtime_error(path + " cannot be written: there is no folder " + folder.string());
    }
    fs::path partial = target_;
    partial.replace_extension(getMark() + partial.extension().string());
    partial_ = partial.string();
    handleSignals();
    partialFile = partial_.c_str();
}

OutputFile::~OutputFile() {
    partialFile = nullptr;
    if (partial_ != target_) {
        ::unlink(partial_.c_str());
    }
}

void OutputFile::commit() {
    if (partial_ == target_) {
        return;
    }
    std::error_code error;
    const fs::file_status replaced = fs::status(target_, error);
    if (fs::exists(replaced)) {
        fs::permissions(partial_, replaced.permissions(), error); // fails on file systems that have none
    }
    fs::rename(partial_, target_, error);
    if (error) {
        throw std::runtime_error(target_ + " cannot be written: " + error.message());
    }
    partialFile = nullptr;
    partial_ = target_;
}

std::string getFinalName(const std::string& path) {
    const std::string mark = getMark();
    const std::size_t found = path.rfind(mark);
    return found == std::string::npos ? path : std::string(path).erase(found, mark.size());
}

std::string getExtension(const std::string& path) {
    std::string extension = fs::path(path).extension().string();
    std::ranges::transform(extension, extension.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

} // namespace KR::tool
