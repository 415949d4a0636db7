#include "krplatform/krthread.hpp"

#include "patience.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <limits>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace KR {
namespace {

using std::chrono::steady_clock;

/// Runs the function on a separate thread and returns its result.
template <class Function>
auto onAThread(Function function) {
    return std::async(std::launch::async, function).get();
}

std::string getKernelName() {
    std::ifstream file("/proc/self/task/" + std::to_string(gettid()) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

TEST(KRThread, AFullLengthNameReadsBackAsSet) {
    const std::string name = "acquisition thread of FaceDetection";
    EXPECT_EQ(onAThread([&] {
                  setThreadName(name);
                  return getThreadName();
              }),
              name);
}

TEST(KRThread, TheKernelKeepsTheFirst15BytesOfAName) {
    EXPECT_EQ(onAThread([] {
                  setThreadName("0123456789abcdefghij");
                  return getKernelName();
              }),
              "0123456789abcde");
    EXPECT_EQ(onAThread([] {
                  setThreadName("short");
                  return getKernelName();
              }),
              "short");
}

TEST(KRThread, AThreadIsNotRenamedToTheSameName) {
    EXPECT_EQ(onAThread([] {
                  setThreadName("mine");
                  pthread_setname_np(pthread_self(), "by another");
                  setThreadName("mine");
                  return getKernelName();
              }),
              "by another");
}

TEST(KRThread, AnUnnamedThreadHasTheKernelsName) {
    EXPECT_EQ(onAThread([] {
                  pthread_setname_np(pthread_self(), "by another");
                  return getThreadName();
              }),
              "by another");
}

TEST(KRThread, EachThreadHasItsOwnName) {
    setThreadName("the first of them");
    EXPECT_EQ(onAThread([] {
                  setThreadName("the second of them");
                  return getThreadName();
              }),
              "the second of them");
    EXPECT_EQ(getThreadName(), "the first of them");
}

TEST(KRThread, SleepsAtLeastUntilTheDeadline) {
    const auto deadline = steady_clock::now() + std::chrono::milliseconds(20);
    sleepUntil(deadline);
    EXPECT_GE(steady_clock::now(), deadline);
    const auto start = steady_clock::now();
    sleepMilliseconds(20);
    EXPECT_GE(steady_clock::now(), start + std::chrono::milliseconds(20));
}

TEST(KRThread, ADeadlineInThePastReturnsAtOnce) {
    // Each of these would hang or fail loudly otherwise.
    sleepUntil(steady_clock::time_point());
    sleepUntil(steady_clock::time_point::min());
    sleepUntil(steady_clock::now());
    sleepMilliseconds(0);
    sleepMilliseconds(-1);
    sleepMilliseconds(std::numeric_limits<int>::min());
}

TEST(KRThread, ASignalDoesNotEndASleep) {
    struct sigaction ignore = {};
    ignore.sa_handler = [](int) {};
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGUSR1, &ignore, &before), 0);
    std::atomic<bool> awake = false;
    std::thread sleeper([&] {
        const auto deadline = steady_clock::now() + std::chrono::milliseconds(100);
        sleepUntil(deadline);
        EXPECT_GE(steady_clock::now(), deadline);
        awake = true;
    });
    while (!awake) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    sleeper.join();
    sigaction(SIGUSR1, &before, nullptr);
}

} // namespace
} // namespace KR
