#include "client/socket/connect_break.hpp"

#include "support/eventually.hpp"
#include "support/file_descriptor.hpp"
#include "support/scripted_server.hpp"
#include "support/socket.hpp"

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

/// A thread that does something with a socket.
class Party {
public:
    explicit Party(std::function<void()> const& act)
        : thread_([this, act] {
              id_ = static_cast<pid_t>(::syscall(SYS_gettid));
              act();
              done_ = true;
          }) {}
    ~Party() { thread_.join(); }
    Party(Party const&) = delete;
    Party& operator=(Party const&) = delete;

    /// Waits until it is blocked in this system call.
    bool getsTo(long systemCall) const {
        return support::eventually([&] {
            std::ifstream file("/proc/self/task/" + std::to_string(id_) + "/syscall");
            long current = -1;
            return file >> current && current == systemCall;
        });
    }
    bool isDone() const { return done_; }
    void breakOff() const { mqtt::breakConnect(id_); }
    bool isBrokenOff() const {
        return support::eventually([this] {
            breakOff();
            return isDone();
        });
    }

private:
    std::atomic<pid_t> id_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

class AConnect : public testing::Test {
protected:
    void connect() const {
        support::FileDescriptor const socket(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(server.port()));
        EXPECT_NE(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
                  0);
    }

    ScriptedServer server{ScriptedServer::Mode::NOT_ACCEPTING};
};

TEST_F(AConnect, ThatWaitsForAnAnswerIsBroken) {
    Party const one([this] { connect(); });
    EXPECT_TRUE(one.isBrokenOff());
}

TEST_F(AConnect, OfAnotherThreadIsLeftAlone) {
    Party const other([this] { connect(); });
    ASSERT_TRUE(other.getsTo(SYS_connect));
    Party const one([this] { connect(); });
    EXPECT_TRUE(one.isBrokenOff());
    EXPECT_FALSE(other.isDone());
    EXPECT_TRUE(other.isBrokenOff());
}

TEST(AThreadThatReads, IsLeftAlone) {
    support::TcpPair const pair;
    char byte = '-';
    {
        Party const reader([&] { EXPECT_EQ(::read(pair.near.get(), &byte, 1), 1); });
        ASSERT_TRUE(reader.getsTo(SYS_read));
        reader.breakOff();
        ASSERT_EQ(::send(pair.far.get(), "x", 1, 0), 1);
    }
    EXPECT_EQ(byte, 'x');
}

TEST(AThreadThatThereIsNot, IsLeftAlone) {
    for (pid_t const none : {-1, 0}) {
        mqtt::breakConnect(none);
    }
}

} // namespace
