#include "krinterop/krmcapreader.hpp"
#include "krinterop/krmcapwriter.hpp"

#include "krmcaprecord.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace KR {

namespace {

class Descriptor {
public:
    Descriptor(const std::string& path, int flags, std::string name)
        : name_(std::move(name)), descriptor_(::open(path.c_str(), flags | O_CLOEXEC, 0666)) {
        if (descriptor_ < 0) {
            fail("cannot be opened");
        }
    }
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const noexcept { return descriptor_; }
    /// \return whether it succeeded
    bool close() noexcept {
        const int descriptor = std::exchange(descriptor_, -1);
        return descriptor < 0 || ::close(descriptor) == 0;
    }
    /// Throws with the error text of errno.
    [[noreturn]] void fail(const char* what) const { fail(what, std::generic_category().message(errno)); }
    [[noreturn]] void fail(const char* what, const std::string& why) const {
        throw KRMcapError(name_ + ": " + what + ": " + why);
    }

private:
    const std::string name_;
    int descriptor_;
};

class OutputFile : public KRMcapOutput {
public:
    OutputFile(const std::string& path, const std::string& name)
        : file_(path, O_WRONLY | O_CREAT | O_TRUNC, name) {}

    void append(std::span<const KRBytes> pieces) override {
        std::array<iovec, 16> parts;
        for (std::size_t first = 0; first < pieces.size(); first += parts.size()) {
            const std::size_t count = std::min(parts.size(), pieces.size() - first);
            for (std::size_t i = 0; i < count; ++i) {
                const KRBytes piece = pieces[first + i];
                // writev() only reads these, but its parameter is not const.
                parts[i] = {const_cast<unsigned char*>(piece.data()), piece.size()};
            }
            write(std::span(parts).first(count));
        }
    }

    void close() override {
        // Pipes and devices have nothing to sync.
        if (file_.get() >= 0 && ::fsync(file_.get()) != 0 && errno != EINVAL && errno != ENOTSUP) {
            file_.fail("cannot be written");
        }
        if (!file_.close()) {
            file_.fail("cannot be written");
        }
    }

private:
    void write(std::span<iovec> parts) {
        while (!parts.empty()) {
            if (parts.front().iov_len == 0) {
                parts = parts.subspan(1);
                continue;
            }
            const ssize_t written = ::writev(file_.get(), parts.data(), static_cast<int>(parts.size()));
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written < 0) {
                file_.fail("cannot be written");
            }
            auto done = static_cast<std::size_t>(written);
            for (iovec& part : parts) {
                const std::size_t taken = std::min(done, part.iov_len);
                part.iov_base = static_cast<char*>(part.iov_base) + taken;
                part.iov_len -= taken;
                done -= taken;
            }
        }
    }

    Descriptor file_;
};

class InputFile : public KRMcapInput {
public:
    explicit InputFile(const std::string& path) : file_(path, O_RDONLY, path) {
        struct stat status;
        if (::fstat(file_.get(), &status) != 0) {
            file_.fail("cannot be read");
        }
        if (!S_ISREG(status.st_mode)) {
            file_.fail("cannot be read", "it is not a regular file");
        }
    }

    // Queried each time: the file may still be growing.
    std::uint64_t getSize() override {
        struct stat status;
        if (::fstat(file_.get(), &status) != 0) {
            file_.fail("cannot be read");
        }
        return static_cast<std::uint64_t>(status.st_size);
    }

    std::size_t readAt(void* to, std::size_t size, std::uint64_t offset) override {
        std::size_t done = 0;
        while (done < size) {
            const ssize_t got = ::pread(file_.get(), static_cast<char*>(to) + done, size - done,
                                        static_cast<off_t>(offset + done));
            if (got == 0) {
                break;
            }
            if (got > 0) {
                done += static_cast<std::size_t>(got);
            } else if (errno != EINTR) {
                file_.fail("cannot be read");
            }
        }
        return done;
    }

private:
    Descriptor file_;
};

} // namespace

KRMcapOutput::~KRMcapOutput() = default;
KRMcapInput::~KRMcapInput() = default;

std::unique_ptr<KRMcapOutput> createMcapFile(const std::string& path, const std::string& name) {
    return std::make_unique<OutputFile>(path, name.empty() ? path : name);
}

std::unique_ptr<KRMcapInput> openMcapFile(const std::string& path) {
    return std::make_unique<InputFile>(path);
}

bool isMcapFile(const std::string& path) noexcept {
    try {
        InputFile file(path);
        std::array<unsigned char, mcap::kMagic.size()> begin{};
        return file.readAt(begin.data(), begin.size(), 0) == begin.size() && begin == mcap::kMagic;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace KR
