#include "client/socket/connect_break.hpp"

#include "mqtt/test/eventually.hpp"
#include "net/file_descriptor.hpp"
#include "net/socket.hpp"
#include "support/scripted_server.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using support::ScriptedServer;

/// A thread that makes one system call with a socket.
class SocketThread {
public:
    explicit SocketThread(std::function<void()> const& call)
        : thread_([this, call] {
              id_ = static_cast<pid_t>(::syscall(SYS_gettid));
              call();
              done_ = true;
          }) {}
    ~SocketThread() { thread_.join(); }
    SocketThread(SocketThread const&) = delete;
    SocketThread& operator=(SocketThread const&) = delete;

    /// Waits until the thread is blocked in this system call.
    bool isBlockedIn(long systemCall) const {
        return mqtt::test::eventually([&] {
            std::ifstream file("/proc/self/task/" + std::to_string(id_) + "/syscall");
            long current = -1;
            return file >> current && current == systemCall;
        });
    }
    bool isDone() const { return done_; }
    void breakConnect() const { mqtt::breakConnect(id_); }
    bool endsWhenBroken() const {
        return mqtt::test::eventually([this] {
            breakConnect();
            return isDone();
        });
    }

private:
    std::atomic<pid_t> id_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

void connectTo(int port) {
    mqtt::test::FileDescriptor const socket(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    EXPECT_NE(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

TEST(AConnect, ThatWaitsForAnAnswerIsBrokenAndThatOfAnotherThreadIsNot) {
    ScriptedServer const server{ScriptedServer::Mode::NOT_ACCEPTING};
    SocketThread const other([&] { connectTo(server.port()); });
    ASSERT_TRUE(other.isBlockedIn(SYS_connect));
    SocketThread const one([&] { connectTo(server.port()); });
    EXPECT_TRUE(one.endsWhenBroken());
    EXPECT_FALSE(other.isDone());
    EXPECT_TRUE(other.endsWhenBroken());
}

TEST(AThreadThatReads, IsLeftAlone) {
    mqtt::test::TcpPair const pair;
    char byte = '-';
    {
        SocketThread const reader([&] { EXPECT_EQ(::read(pair.near.get(), &byte, 1), 1); });
        ASSERT_TRUE(reader.isBlockedIn(SYS_read));
        reader.breakConnect();
        ASSERT_EQ(::send(pair.far.get(), "x", 1, 0), 1);
    }
    EXPECT_EQ(byte, 'x');
}

TEST(AThreadThatDoesNotExist, IsLeftAlone) {
    for (pid_t const none : {-1, 0}) {
        mqtt::breakConnect(none);
    }
}

} // namespace
