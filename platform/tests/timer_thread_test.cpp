// The properties of a timer's thread, and what happens when the system gives no thread.

#include "mqtt/test/watched.hpp"

#include <zym/common/timer.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <system_error>

#include <dlfcn.h>
#include <pthread.h>

namespace {

using mqtt::test::Watched;
using zym::common::Timer;

constexpr std::size_t KIB = 1024;
constexpr std::size_t LARGE = 1024 * KIB;

constexpr std::size_t ANY = 0;
constexpr std::size_t NONE = SIZE_MAX;

/// The smallest stack with which `pthread_create` gives a thread in this program.
std::atomic<std::size_t> smallestStack{ANY};

} // namespace

// In the program itself, this comes before that of the C library.
extern "C" int pthread_create(pthread_t* handle, pthread_attr_t const* attributes,
                              void* (*body)(void*), void* argument) {
    std::size_t stack = LARGE;
    if (attributes != nullptr) {
        pthread_attr_getstacksize(attributes, &stack);
    }
    if (stack < smallestStack) {
        return smallestStack == NONE ? EAGAIN : EINVAL;
    }
    static auto const next =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return next(handle, attributes, body, argument);
}

namespace {

struct Properties {
    std::string name;
    std::size_t stackBytes = 0;
    sigset_t blocked{};
};

Properties ofThisThread() {
    Properties properties;
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    properties.name = name;
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &properties.stackBytes);
    pthread_attr_destroy(&attributes);
    pthread_sigmask(SIG_SETMASK, nullptr, &properties.blocked);
    return properties;
}

bool isBlocked(Properties const& properties, int signal) {
    return sigismember(&properties.blocked, signal) == 1;
}

class TheThreadOfATimer : public testing::Test {
protected:
    ~TheThreadOfATimer() override { smallestStack = ANY; }

    void start() {
        std::unique_lock<std::mutex> lock(timer_.mutex());
        timer_.restart(lock);
    }

    Properties properties() {
        EXPECT_TRUE(
            properties_.waitFor([](Properties const& found) { return found.stackBytes > 0; }));
        return properties_.copy();
    }

private:
    Watched<Properties> properties_;
    Timer timer_{[this] { properties_.change([](Properties& found) { found = ofThisThread(); }); },
                 std::chrono::milliseconds(0), true};
};

TEST_F(TheThreadOfATimer, HasANameASmallStackAndBlocksAllSignalsButThoseOfAFault) {
    start();
    auto const found = properties();
    EXPECT_EQ(found.name, "zym-timer");
    EXPECT_GE(found.stackBytes, 256 * KIB);
    EXPECT_LT(found.stackBytes, LARGE);
    for (int const signal :
         {SIGHUP, SIGINT, SIGQUIT, SIGALRM, SIGTERM, SIGCHLD, SIGPIPE, SIGUSR1, SIGRTMIN}) {
        EXPECT_TRUE(isBlocked(found, signal)) << signal;
    }
    for (int const signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        EXPECT_FALSE(isBlocked(found, signal)) << signal;
    }
}

TEST_F(TheThreadOfATimer, LeavesTheSignalsOfItsCreatorAsTheyWere) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &one, nullptr);
    start();
    auto const now = ofThisThread();
    EXPECT_TRUE(isBlocked(now, SIGUSR2));
    EXPECT_FALSE(isBlocked(now, SIGUSR1));
}

TEST_F(TheThreadOfATimer, HasTheUsualStackWhereASmallOneIsTooSmall) {
    smallestStack = LARGE;
    start();
    EXPECT_GE(properties().stackBytes, LARGE);
}

TEST_F(TheThreadOfATimer, IsStartedByTheNextRestartWhenThereWasNone) {
    smallestStack = NONE;
    EXPECT_THROW(start(), std::system_error);
    smallestStack = ANY;
    start();
    EXPECT_EQ(properties().name, "zym-timer");
}

} // namespace
