#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace KR::test {

/// Lowers how many descriptors this process may have, while it exists.
class LoweredLimit {
public:
    explicit LoweredLimit(rlim_t count) {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit lowered = before_;
        lowered.rlim_cur = std::min(count, lowered.rlim_cur);
        setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~LoweredLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
    LoweredLimit(const LoweredLimit&) = delete;
    LoweredLimit& operator=(const LoweredLimit&) = delete;

private:
    rlimit before_{};
};

/// Whether a test may take all descriptors: the sanitizer of undefined behavior opens pipes to find out whether memory can be
/// read, and takes objects for destroyed without them.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kCanTakeAllDescriptors = false;
#else
constexpr bool kCanTakeAllDescriptors = true;
#endif

/// Takes all descriptors that this process may have, while it exists.
class AllDescriptorsTaken {
public:
    AllDescriptorsTaken() {
        for (;;) {
            const int next = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
            if (next < 0) {
                break;
            }
            taken_.push_back(next);
        }
        EXPECT_FALSE(taken_.empty());
    }
    ~AllDescriptorsTaken() {
        while (!taken_.empty()) {
            freeOne();
        }
    }
    AllDescriptorsTaken(const AllDescriptorsTaken&) = delete;
    AllDescriptorsTaken& operator=(const AllDescriptorsTaken&) = delete;

    void freeOne() {
        close(taken_.back());
        taken_.pop_back();
    }

private:
    const LoweredLimit limit_{256};
    std::vector<int> taken_;
};

/// More descriptors of this user under way in sockets than the kernel allows, while it exists.
class TooManyUnderWay {
public:
    TooManyUnderWay() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets_.data()), 0);
        std::array<int, 250> descriptors{};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> control{};
        char byte = 0;
        iovec part{&byte, 1};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof descriptors);
        descriptors.fill(STDERR_FILENO);
        std::memcpy(CMSG_DATA(rights), descriptors.data(), sizeof descriptors);
        EXPECT_EQ(sendmsg(sockets_[0], &message, 0), 1);
    }
    ~TooManyUnderWay() {
        for (const int each : sockets_) {
            close(each);
        }
    }
    TooManyUnderWay(const TooManyUnderWay&) = delete;
    TooManyUnderWay& operator=(const TooManyUnderWay&) = delete;

private:
    std::array<int, 2> sockets_{}; // nobody receives from them
    const LoweredLimit limit_{128};
};

/// Root may have any number of descriptors under way.
constexpr uid_t kOrdinaryUser = 65533;

inline void becomeOrdinaryUser() {
    if (geteuid() == 0 &&
        (setgroups(0, nullptr) != 0 || setgid(kOrdinaryUser) != 0 || setuid(kOrdinaryUser) != 0)) {
        _exit(3);
    }
}

/// The words for another process of the tests that is to be of the same user as this one after becomeOrdinaryUser().
inline std::vector<std::string> asOrdinaryUser(std::vector<std::string> words) {
    if (geteuid() == 0) {
        const std::string id = std::to_string(kOrdinaryUser);
        const std::vector<std::string> before{"as", id, id};
        words.insert(words.begin(), before.begin(), before.end());
    }
    return words;
}

/// Ends the process of a death test.
[[noreturn]] inline void exitWithTestResult() {
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

} // namespace KR::test
